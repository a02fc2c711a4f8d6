/*
 * kt4 common definitions: results, waits, export brackets and the checked allocator.
 *
 * Every public header of the library includes this one. It compiles as C11 and as C++.
 */
#ifndef KT4_COMMON_H
#define KT4_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KT4_BEGIN_DECLS extern "C" { _Pragma("GCC visibility push(default)")
#define KT4_END_DECLS _Pragma("GCC visibility pop") }
#else
#define KT4_BEGIN_DECLS _Pragma("GCC visibility push(default)")
#define KT4_END_DECLS _Pragma("GCC visibility pop")
#endif

/* Kernel-style results: OK, or ERROR with the reason in errno. */
#ifndef OK
#define OK 0
#endif
#ifndef ERROR
#define ERROR (-1)
#endif
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* Time-outs in ticks: wait for ever, or not at all. */
#define WAIT_FOREVER (-1)
#define NO_WAIT 0

typedef int STATUS;
typedef int BOOL;

/*
 * Big-endian 32-bit field of the library's public records: four bytes, most significant first,
 * whatever the processor. A struct rather than an integer so that a forgotten conversion does
 * not compile; read and write it with kt4Be32Get / kt4Be32Set.
 */
#ifndef KT4_BE32_DEFINED
#define KT4_BE32_DEFINED
typedef struct kt4Be32 {
    unsigned char b[4];
} kt4Be32;

static inline uint32_t kt4Be32Get(const kt4Be32 *f) {
    return ((uint32_t)f->b[0] << 24) | ((uint32_t)f->b[1] << 16) | ((uint32_t)f->b[2] << 8) |
           (uint32_t)f->b[3];
}

static inline void kt4Be32Set(kt4Be32 *f, uint32_t v) {
    f->b[0] = (unsigned char)(v >> 24);
    f->b[1] = (unsigned char)(v >> 16);
    f->b[2] = (unsigned char)(v >> 8);
    f->b[3] = (unsigned char)v;
}
#endif

KT4_BEGIN_DECLS

/*
 * The checked allocator. Every allocation of the library passes through it with the
 * caller's source file (or source tag) and line. Each block carries a 64-byte guard laid by
 * the memory-check service; while gKT4MCOn is set the block is also registered with that
 * service, which can then list every live block by file and line.
 */
extern int gKT4MCOn;

void *kt4MC_malloc(const char *file, int line, size_t size);
void *kt4MC_calloc(const char *file, int line, size_t nmemb, size_t size);
void kt4MC_free(const char *file, int line, void *ptr);
void *kt4MC_M_sysMalloc(const char *file, int line, size_t size);
void *kt4MC_M_sysCalloc(const char *file, int line, size_t nmemb, size_t size);
int kt4MC_M_sysMemfree(const char *file, int line, void *ptr);

/* Convenience forms that pass the caller's file and line. */
#define KT4_MALLOC(size) kt4MC_malloc(__FILE__, __LINE__, (size))
#define KT4_CALLOC(n, size) kt4MC_calloc(__FILE__, __LINE__, (n), (size))
#define KT4_FREE(ptr) kt4MC_free(__FILE__, __LINE__, (ptr))

KT4_END_DECLS

#endif /* KT4_COMMON_H */
