/* A shared library that needs a function nothing defines: it loads when
 * binding is lazy and fails when every symbol is bound at load. */
int osutil_nobody_defines_this(void);
int osutil_unresolved_call(void) { return osutil_nobody_defines_this(); }
