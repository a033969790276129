// Symbol visibility for the public API. The library is compiled with hidden
// visibility, so only declarations marked PACTIVO_EXPORT are reachable from a
// host that links the shared library.
#ifndef PACTIVO_EXPORT_H_
#define PACTIVO_EXPORT_H_

#define PACTIVO_EXPORT __attribute__((visibility("default")))

#endif  // PACTIVO_EXPORT_H_
