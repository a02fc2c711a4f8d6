/*
 * kt4 event logging, tracing and assertions.
 */
#ifndef KT4_LOG_H
#define KT4_LOG_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* Reports a failed library assertion and returns: an assertion never ends the process. */
void _kt4Assert(const char *expression, const char *file, int line);
/* The compiled-out development assertion: does nothing. */
void _kt4DevAssert(const char *expression, const char *file, int line);

/* Checks expr and reports it through _kt4Assert under the given source tag when it is false. */
#define KT4_ASSERT_TAG(expr, tag) ((expr) ? (void)0 : _kt4Assert(#expr, (tag), __LINE__))
#define KT4_ASSERT(expr) KT4_ASSERT_TAG(expr, __FILE__)

KT4_END_DECLS

#endif /* KT4_LOG_H */
