namespace { int nPlaceholder; } int MarkPlaceholder() { return nPlaceholder; }
