/* The shared plug-in is the static modules linked whole; this unit only gives
 * the library target a source of its own. */
typedef int qvefos_library_unit;
