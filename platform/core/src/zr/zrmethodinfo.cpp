// ZRMethodInfo is a plain record; this unit keeps its vtable-free layout in one place
// for the shared library and exists so the header stays declaration-only.
#include <zr/zrmethodinfo.h>
