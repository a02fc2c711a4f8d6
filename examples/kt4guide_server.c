/*
 * kt4guide_server: the server of the getting-started guide (docs/getting-started.md).
 *
 * A control process started on a card with
 *     kt4card run --service 200 -- kt4guide_server
 * Its one task opens the endpoint of the service and instance in its system words, answers
 * each GUIDE_MSG_UPPER request with the word in capitals, and stops after GUIDE_MSG_BYE.
 */
#include "kt4guide.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

static kt4SemId g_done; /* given by the task when it ends: main waits for it */
static int g_result = 1;

static int serve(int key) {
    unsigned char msg[GUIDE_MSG_MAX];
    for (int served = 0;;) {
        /* 0, 0: any message type and transaction. The time-out is in seconds. */
        int n = kt4IpcRecv(Key_getReqQueue(key), msg, sizeof msg, 60, 0, 0);
        if (n < 0) {
            fprintf(stderr, "server: no request: %s\n", kt4ErrnoText(errno));
            return 1;
        }
        /* The length field is the sender's word for the message's size. */
        uint32_t len = kt4IpcHdrGet(msg, KT4_IPC_HDR_LENGTH);
        if (n < KT4_IPC_HDR_LEN || len < KT4_IPC_HDR_LEN || len > (uint32_t)n) {
            fprintf(stderr, "server: dropped a malformed message of %d bytes\n", n);
            continue;
        }
        uint32_t type = kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE);
        if (type == GUIDE_MSG_BYE) {
            printf("server: goodbye after %d request(s)\n", served);
            fflush(stdout);
            kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
            kt4IpcReply(key, msg, KT4_IPC_HDR_LEN);
            return 0;
        }
        if (type != GUIDE_MSG_UPPER) continue;
        char *word = (char *)msg + KT4_IPC_HDR_LEN;
        word[len - KT4_IPC_HDR_LEN - 1] = '\0'; /* the body ends with its NUL; trust no one */
        printf("server: request %u: '%s'\n", kt4IpcHdrGet(msg, KT4_IPC_HDR_TRANSACTION), word);
        fflush(stdout);
        for (char *c = word; *c != '\0'; ++c)
            *c = (char)toupper((unsigned char)*c);
        /* The reply goes back to the response queue named in the request's source triple;
         * type and transaction stay those of the request, which is what the sender waits for. */
        if (kt4IpcReply(key, msg, (int)len) < 0)
            fprintf(stderr, "server: reply failed: %s\n", kt4ErrnoText(errno));
        ++served;
    }
}

/* A task's entry takes ten words; kt4_taskSpawn passes (arg, key, 0, ...). */
static int server_task(kt4_arg_t arg, kt4_arg_t keyArg, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5,
                       kt4_arg_t a6, kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10) {
    (void)arg, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8, (void)a9, (void)a10;
    const int key = (int)keyArg;
    /* Opens the request and response queues, registers them on the card (the client finds
     * them there) and tells the card's task manager that the task is ready. */
    if (kt4TaskStartup(key, 0) != key) {
        fprintf(stderr, "server: cannot open the endpoint of key %d: %s\n", key,
                kt4ErrnoText(errno));
    } else {
        printf("server: service %d instance %d ready\n", kt4IpcGetService(key),
               kt4IpcGetInstance(key));
        fflush(stdout);
        g_result = serve(key);
    }
    semGive(g_done);
    return 0; /* a task whose entry returns is deleted; its endpoint and records go with it */
}

int main(int argc, char **argv) {
    if (argc < 1 + KT4_TASK_SYS_ARGS) {
        fprintf(stderr,
                "usage: kt4card run --service N -- kt4guide_server\n"
                "(a control process's command line ends with %d system words)\n",
                KT4_TASK_SYS_ARGS);
        return 2;
    }
    /* First call of every control process: card's shared memory, locks, tasking layer
     * (kt4VxToBsdInit), health record and the sysReaper monitor task. */
    KT4_NbsdpInit(argc, argv);
    const int service = atoi(argv[argc - 6]);
    const int instance = atoi(argv[argc - 5]);

    g_done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    if (g_done == 0) {
        fprintf(stderr, "server: semBCreate: %s\n", kt4ErrnoText(errno));
        return 1;
    }
    /* options 0 and stack size 0: the defaults (every task gets the host's default stack). */
    if (kt4_taskSpawn("tGuideServer", GUIDE_TASK_PRIORITY, 0, 0, server_task, service, instance,
                      0) == -1) {
        fprintf(stderr, "server: kt4_taskSpawn: %s\n", kt4ErrnoText(errno));
        return 1;
    }
    semTake(g_done, WAIT_FOREVER);
    if (g_result != 0) return g_result;
    KT4_NbsdpExit(); /* closes the health record and ends the process with status 0 */
    return 0;
}
