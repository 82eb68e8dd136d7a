#ifndef MAVIX_TEST_TSAN_GLIB_H
#define MAVIX_TEST_TSAN_GLIB_H

#include <gio/gio.h>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

// GLib's hand-overs, told to ThreadSanitizer, which does not see the futexes that GLib locks with. The files
// TsanGlib*.cpp are part of every program of a thread sanitizer build that uses the library, and of no other;
// they are not instrumented themselves.
//
// Rules: a function stands there only when GLib itself orders what happened before it on one thread and after
// it on another. It releases on the giving side and acquires on the taking side, on the narrowest address
// that both know: the element of a queue, not the queue; the source, not its context. It never ignores an
// access, so that data that is not handed over is still reported.

// Inside a function of GLib's name: the function that it stands before.
#define NEXT(function)                                                                                       \
    static const auto next = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

#endif
