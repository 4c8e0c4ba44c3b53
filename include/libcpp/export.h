#ifndef LIBCPP_EXPORT_H
#define LIBCPP_EXPORT_H

/* Marks what the shared library gives to its users; everything else stays hidden. Plain C reads this too. */
#define VEKMSG_API __attribute__((visibility("default")))

#endif
