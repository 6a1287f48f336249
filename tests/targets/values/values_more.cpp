// A file static of a second translation unit: the debugger finds it by name from main's frame.
static int file_static = 77;

int ValuesMoreFileStatic(void) { return file_static; }
