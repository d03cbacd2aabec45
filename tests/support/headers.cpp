// Nothing of its own: the tests' common header is compiled here once for all of them.
