namespace { int nPlaceholder; } int ImageprocPlaceholder() { return nPlaceholder; }
