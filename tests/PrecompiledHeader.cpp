// The translation unit that owns the test programs' precompiled header (see tests/CMakeLists.txt).
