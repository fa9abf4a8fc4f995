/* Marks what the library exports; everything else is hidden. */
#ifndef PELMAR_EXPORT_H
#define PELMAR_EXPORT_H

#define PELMAR_EXPORT __attribute__((visibility("default")))

#endif
