# The reference with the C++ layer beside the C header. The layer's members are C's functions in
# another form and mostly explained by their names; what is said of them must be right.
@INCLUDE               = docs/Doxyfile
FILE_PATTERNS          = *.h *.hpp
OPTIMIZE_OUTPUT_FOR_C  = NO
WARN_IF_UNDOCUMENTED   = NO
WARN_IF_INCOMPLETE_DOC = NO
WARN_NO_PARAMDOC       = NO
