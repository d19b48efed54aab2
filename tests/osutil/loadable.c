/* A small shared library for the library-loading tests. */
int osutil_loadable_answer(void) { return 42; }
