// A library needs a source, even one that is made for its precompiled headers alone.
