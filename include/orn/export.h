// Visibility of the few symbols that the shared library exports.
#ifndef ORN_EXPORT_H
#define ORN_EXPORT_H

#if defined(__GNUC__)
#define ORN_API __attribute__((visibility("default")))
#else
#define ORN_API
#endif

#endif
