#ifndef MAVIX_MESSAGE_FILTER_CONTEXT_H
#define MAVIX_MESSAGE_FILTER_CONTEXT_H

#include <glib.h>

// User data of a connection's message filter: where to queue and whom to wake. It owns what it names, because
// the filter may still run after it was removed.
struct MessageFilterContext {
    GMainContext* context; // one reference
    GAsyncQueue* queue;    // one reference

    // Releases both and the record itself; null is ignored.
    static void Destroy(void* data);
};

#endif
