// Compiles the tests' common header once.
