// The library's exported C functions.
