/*
 * The tasking layer from C: start-up, a task fed through a message queue, a mutual-exclusion
 * semaphore and a watchdog. Exits 0 when everything behaved.
 */
#include <kt4/vx2bsd.h>

#include <errno.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

static kt4MsgQId queue;
static kt4SemId guard;
static kt4SemId done;
static int total; /* under guard */
static atomic_int watchdog_fired;

static int worker(kt4_arg_t count, kt4_arg_t a2, kt4_arg_t a3, kt4_arg_t a4, kt4_arg_t a5,
                  kt4_arg_t a6, kt4_arg_t a7, kt4_arg_t a8, kt4_arg_t a9, kt4_arg_t a10) {
    (void)a2;
    (void)a3;
    (void)a4;
    (void)a5;
    (void)a6;
    (void)a7;
    (void)a8;
    (void)a9;
    (void)a10;
    for (kt4_arg_t i = 0; i < count; ++i) {
        int v = 0;
        if (msgQReceive(queue, (char *)&v, sizeof v, WAIT_FOREVER) != (int)sizeof v) return 1;
        semTake(guard, WAIT_FOREVER);
        total += v;
        semGive(guard);
    }
    semGive(done);
    return 0;
}

static void on_watchdog(kt4_arg_t p) {
    atomic_store(&watchdog_fired, (int)p);
}

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "c_api: %s failed (errno 0x%x)\n", #cond, (unsigned)errno);            \
            return 1;                                                                              \
        }                                                                                          \
    } while (0)

int main(void) {
    CHECK(kt4VxToBsdInit(1, 1) == 0);
    queue = msgQCreate(4, sizeof(int), KT4_MSGQ_FIFO);
    guard = semMCreate(KT4_SEM_Q_PRIORITY | KT4_SEM_INVERSION_SAFE);
    done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    CHECK(queue != NULL && guard != 0 && done != 0);
    int tid = taskSpawn("tCWorker", 100, 0, 0, worker, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    CHECK(tid > 0);
    CHECK(strcmp(taskName(tid), "tCWorker") == 0);
    for (int i = 1; i <= 10; ++i)
        CHECK(msgQSend(queue, (const char *)&i, sizeof i, WAIT_FOREVER, KT4_MSG_PRI_NORMAL) == OK);
    CHECK(semTake(done, 5 * sysClkRateGet()) == OK);
    CHECK(semTake(guard, WAIT_FOREVER) == OK);
    CHECK(total == 55);
    CHECK(semGive(guard) == OK);

    kt4WdogId wd = wdCreate();
    CHECK(wd != NULL);
    CHECK(wdStart(wd, 100, on_watchdog, 7) == OK);
    for (int i = 0; i < 50 && atomic_load(&watchdog_fired) == 0; ++i)
        taskDelay(1);
    CHECK(atomic_load(&watchdog_fired) == 7);
    CHECK(wdDelete(wd) == OK);

    CHECK(semTake(done, NO_WAIT) == ERROR && errno == KT4_E_OBJ_UNAVAILABLE);
    for (int i = 0; i < 50 && taskIdVerify(tid) == OK; ++i)
        taskDelay(1);
    CHECK(taskIdVerify(tid) == ERROR);
    CHECK(msgQDelete(queue) == OK && semDelete(guard) == OK && semDelete(done) == OK);
    printf("c_api: ok\n");
    return 0;
}
