namespace { int nPlaceholder; } int SensorPlaceholder() { return nPlaceholder; }
