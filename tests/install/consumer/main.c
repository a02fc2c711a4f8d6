/* A small C11 control-process body: the tasking layer (threads, once-only start-up), a task
 * and a semaphore, a message queue and a watchdog, a container and the errno texts. Exits 0 when
 * all of it behaved. */
#include <kt4/kt4.h>

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

static kt4SemId done;

static int task(kt4_arg_t a1, kt4_arg_t a2, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5, kt4_arg_t a6,
                kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10) {
    (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8, (void)a9, (void)a10;
    *(int *)a1 = 42;
    semGive(done);
    return 0;
}

static void fire(kt4_arg_t unused) {
    (void)unused;
    semGive(done);
}

struct rec {
    uint32_t pad[2];
    uint32_t key;
};

int main(void) {
    if (kt4VxToBsdInit(1, 1) != 0) return 1;
    done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    int value = 0, r0 = 0;
    if (taskSpawn("tConsumer", 100, 0, 0, task, (kt4_arg_t)&value, 0, 0, 0, 0, 0, 0, 0, 0, 0) ==
        ERROR)
        return 2;
    if (semTake(done, 5 * sysClkRateGet()) != OK || value != 42) return 3;
    if (semTake(done, NO_WAIT) != ERROR || errno != KT4_E_OBJ_UNAVAILABLE) return 4;
    printf("consumer: %s\n", kt4ErrnoText(errno));

    kt4MsgQId q = msgQCreate(2, sizeof(int), KT4_MSGQ_FIFO);
    kt4WdogId wd = wdCreate();
    if (q == NULL || wd == NULL || wdStart(wd, 1, fire, 0) != OK) return 6;
    if (semTake(done, 5 * sysClkRateGet()) != OK || wdDelete(wd) != OK) return 7;
    if (msgQSend(q, (const char *)&value, sizeof value, NO_WAIT, KT4_MSG_PRI_NORMAL) != OK ||
        msgQReceive(q, (char *)&r0, sizeof r0, NO_WAIT) != (int)sizeof r0 || r0 != 42)
        return 8;
    msgQDelete(q);

    struct rec r = {{0, 0}, 7}, probe = {{0, 0}, 7};
    kt4RBTree *t = kt4RBTreeCreate("c", offsetof(struct rec, key), 4, NULL, NULL, _RBTCompareUL);
    if (t == NULL || kt4RBTreeInsert(t, &r) != 1 || kt4RBTreeGetExact(t, &probe) != &r) return 5;
    kt4RBTreeRemove(t, &probe);
    kt4RBTreeDestroy(t);
    printf("consumer: ok\n");
    return 0;
}
