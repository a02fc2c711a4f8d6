/*
 * kt4guide_client: the client of the getting-started guide (docs/getting-started.md).
 *
 *     kt4card run --service 201 -- kt4guide_client SERVICE INSTANCE WORD...
 *
 * Its one task opens its own endpoint, finds the server task (SERVICE, INSTANCE) through the
 * card's task table, sends each WORD with send-and-wait, prints the reply, and says goodbye.
 */
#include "kt4guide.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static kt4SemId g_done;
static int g_result = 1;
static int g_peerService, g_peerInstance, g_words;
static char **g_word;

/* One request and its reply. The buffer holds both: kt4IpcSendWait sends len bytes and takes
 * a reply of at most len bytes into the same buffer. Returns the reply's length or -1. */
static int exchange(int key, uint32_t peer, uint32_t type, uint32_t transaction,
                    unsigned char msg[GUIDE_MSG_MAX], const char *word) {
    memset(msg, 0, GUIDE_MSG_MAX);
    size_t body = word != NULL ? strlen(word) + 1 : 0;
    memcpy(msg + KT4_IPC_HDR_LEN, word != NULL ? word : "", body);
    /* The header's length field is ours to fill: header plus body. */
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, (uint32_t)(KT4_IPC_HDR_LEN + body));
    /* Source: (slot, service, instance). Target: (address, slot, service, instance): the
     * address comes first there, the documented order of these two calls. */
    kt4IpcSetSourceHeader(msg, kt4CardSlot(), kt4IpcGetService(key), kt4IpcGetInstance(key));
    kt4IpcSetTargetHeader(msg, peer, kt4CardSlot(), g_peerService, g_peerInstance);
    /* Time-out in seconds (waited in 500 ms slices); type and transaction select the reply. */
    return kt4IpcSendWait(key, msg, GUIDE_MSG_MAX, GUIDE_WAIT_SECONDS, type, transaction);
}

static int ask(int key) {
    int status = -1;
    /* Waits for the server with a growing back-off (100 tries, under two minutes in all). */
    uint32_t peer = kt4_tmeGetTaskIpAddrByName(g_peerService, g_peerInstance, &status);
    if (peer == 0xFFFFFFFFu) {
        fprintf(stderr, "client: service %d instance %d not found on the card (status %d)\n",
                g_peerService, g_peerInstance, status);
        return 1;
    }
    printf("client: found service %d instance %d\n", g_peerService, g_peerInstance);
    fflush(stdout);
    unsigned char msg[GUIDE_MSG_MAX];
    uint32_t transaction = 0;
    int failures = 0;
    for (int i = 0; i < g_words; ++i) {
        if (strlen(g_word[i]) >= GUIDE_BODY_MAX) {
            fprintf(stderr, "client: '%s' is too long\n", g_word[i]);
            ++failures;
            continue;
        }
        int n = exchange(key, peer, GUIDE_MSG_UPPER, ++transaction, msg, g_word[i]);
        if (n <= KT4_IPC_HDR_LEN) {
            fprintf(stderr, "client: request %u: %s\n", transaction,
                    n < 0 ? kt4ErrnoText(errno) : "empty reply");
            ++failures;
            continue;
        }
        msg[GUIDE_MSG_MAX - 1] = '\0';
        printf("client: '%s' -> '%s'\n", g_word[i], (char *)msg + KT4_IPC_HDR_LEN);
        fflush(stdout);
    }
    if (exchange(key, peer, GUIDE_MSG_BYE, ++transaction, msg, NULL) < 0) {
        fprintf(stderr, "client: goodbye: %s\n", kt4ErrnoText(errno));
        ++failures;
    }
    return failures == 0 ? 0 : 1;
}

static int client_task(kt4_arg_t arg, kt4_arg_t keyArg, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5,
                       kt4_arg_t a6, kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10) {
    (void)arg, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8, (void)a9, (void)a10;
    const int key = (int)keyArg;
    if (kt4TaskStartup(key, 0) != key)
        fprintf(stderr, "client: cannot open the endpoint of key %d: %s\n", key,
                kt4ErrnoText(errno));
    else
        g_result = ask(key);
    semGive(g_done);
    return 0;
}

int main(int argc, char **argv) {
    const int words = argc - 1 - KT4_TASK_SYS_ARGS;
    if (words < 2) {
        fprintf(stderr, "usage: kt4card run --service N -- kt4guide_client SERVICE INSTANCE "
                        "WORD...\n");
        return 2;
    }
    KT4_NbsdpInit(argc, argv);
    g_peerService = atoi(argv[1]);
    g_peerInstance = atoi(argv[2]);
    g_word = argv + 3;
    g_words = words - 2;

    g_done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    if (g_done == 0) {
        fprintf(stderr, "client: semBCreate: %s\n", kt4ErrnoText(errno));
        return 1;
    }
    if (kt4_taskSpawn("tGuideClient", GUIDE_TASK_PRIORITY, 0, 0, client_task, atoi(argv[argc - 6]),
                      atoi(argv[argc - 5]), 0) == -1) {
        fprintf(stderr, "client: kt4_taskSpawn: %s\n", kt4ErrnoText(errno));
        return 1;
    }
    semTake(g_done, WAIT_FOREVER);
    if (g_result != 0) return g_result;
    KT4_NbsdpExit();
    return 0;
}
