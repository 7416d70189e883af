/** @file Marks what the shared library exports; everything else stays hidden. Includable from C. */
#ifndef DATAUPDATE_EXPORT_H
#define DATAUPDATE_EXPORT_H

/** Before a declaration: the library exports it. */
#define TARNDBUD_EXPORT __attribute__((visibility("default")))

#endif
