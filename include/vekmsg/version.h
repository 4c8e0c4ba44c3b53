#ifndef VEKMSG_VERSION_H
#define VEKMSG_VERSION_H

/* Libraries with the same major number have the same binary interface: slots of virtual operations, layouts
 * and exported names of a major number are only added to, at their end. Plain C reads this too. */
#define VEKMSG_VERSION_MAJOR 1
#define VEKMSG_VERSION_MINOR 0
#define VEKMSG_VERSION_PATCH 0

#endif
