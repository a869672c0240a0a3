namespace { int nPlaceholder; } int TransportPlaceholder() { return nPlaceholder; }
