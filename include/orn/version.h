// Version of the public headers.
#ifndef ORN_VERSION_H
#define ORN_VERSION_H

#define ORN_VERSION_MAJOR 3
#define ORN_VERSION_MINOR 30
#define ORN_VERSION_PATCH 0
#define ORN_VERSION_STRING "3.30.0"

#endif
