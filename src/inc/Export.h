#ifndef MAVIX_EXPORT_H
#define MAVIX_EXPORT_H

// Marks what the library exports; everything else is hidden.
#define MAVIX_API_EXPORT __attribute__((visibility("default")))

#endif
