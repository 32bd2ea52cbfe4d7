/// \file
/// QV_EXPORT marks what the shared library exports; everything else is hidden.
#ifndef QUORVANE_EXPORT_H_
#define QUORVANE_EXPORT_H_

/// Makes a symbol visible outside the shared library.
#define QV_EXPORT __attribute__((visibility("default")))

#endif  // QUORVANE_EXPORT_H_
