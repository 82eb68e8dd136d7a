// To be included last: assert() as it is without NDEBUG, whatever the build type says. Like <assert.h> itself
// it has no include guard.
#undef NDEBUG
#include <assert.h>
