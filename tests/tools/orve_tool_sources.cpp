// The tool's file readers, compiled into the test executable so their error handling can be
// driven directly; the tool itself is a separate program that links the shared library.
#include "../../tools/orve/file_checks.cpp"
#include "../../tools/orve/index_files.cpp"
#include "../../tools/orve/tool_error.cpp"
#include "../../tools/orve/vector_file.cpp"
#include "../../tools/orve/sharded_dir.cpp"
