namespace tavk05cal { int nPlaceholder = 0; }
