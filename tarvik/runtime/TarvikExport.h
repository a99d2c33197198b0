/* Export macro of libtarvik.so: the library is built with hidden visibility,
 * so only what carries TARVIK_API is part of its interface. */
#ifndef TARVIK_RUNTIME_TARVIKEXPORT_H
#define TARVIK_RUNTIME_TARVIKEXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define TARVIK_API __attribute__((visibility("default")))
#else
#define TARVIK_API
#endif

#endif
