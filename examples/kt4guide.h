/*
 * What the getting-started server and client agree on (docs/getting-started.md): the message
 * types of their one request and the size of a message.
 *
 * A message is the 60-byte IPC header followed by the body. The sender fills the header's
 * length field with header plus body (the library never does); the receiver believes that
 * field, not the datagram's size.
 */
#ifndef KT4GUIDE_H
#define KT4GUIDE_H

#include <kt4/kt4.h>

#define GUIDE_MSG_UPPER 3201 /* request: a word; reply: the word in capitals */
#define GUIDE_MSG_BYE 3202   /* request: stop serving; reply: the header alone */
#define GUIDE_BODY_MAX 64
#define GUIDE_MSG_MAX (KT4_IPC_HDR_LEN + GUIDE_BODY_MAX)

#define GUIDE_TASK_PRIORITY 100 /* an ordinary task: 0 most urgent .. 255 least */
#define GUIDE_WAIT_SECONDS 5    /* kt4IpcSendWait and kt4IpcRecv time-outs are in seconds */

#endif /* KT4GUIDE_H */
