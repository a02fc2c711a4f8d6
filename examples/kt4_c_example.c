/*
 * A control process written in plain C11 against the umbrella header: one call or more from
 * every family, to show that the whole interface is usable from C. Exits 0 when every step
 * behaved.
 */
#include <kt4/kt4.h>

#include <stdio.h>
#include <string.h>

struct route {
    const char *name;
    uint32_t key; /* not at offset 0: look-ups take a probe record, not a bare key */
};

static int fired;

static void on_timer(uintptr_t param) {
    fired += (int)param;
}

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "kt4_c_example: %s failed (line %d)\n", #cond, __LINE__);              \
            return 1;                                                                              \
        }                                                                                          \
    } while (0)

int main(void) {
    /* Tasking layer: a binary semaphore and a message queue. */
    kt4SemId sem = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_FULL);
    CHECK(sem != 0);
    CHECK(semTake(sem, NO_WAIT) == OK);
    CHECK(semTake(sem, NO_WAIT) == ERROR);
    CHECK(semDelete(sem) == OK);
    kt4MsgQId q = msgQCreate(4, 16, KT4_MSGQ_FIFO);
    char buf[16];
    CHECK(q != NULL);
    CHECK(msgQSend(q, "hello", 6, NO_WAIT, KT4_MSG_PRI_NORMAL) == OK);
    CHECK(msgQReceive(q, buf, sizeof buf, NO_WAIT) == 6 && strcmp(buf, "hello") == 0);
    CHECK(msgQDelete(q) == OK);

    /* Checked allocator and memory-check service. */
    void *p = kt4MC_malloc("kt4_c_example", __LINE__, 100);
    CHECK(p != NULL);
    kt4MC_free("kt4_c_example", __LINE__, p);

    /* Timers: tick source and a timer head fired by the caller. */
    CHECK(sysClkRateGet() == 50);
    kt4TmrHead head;
    CHECK(kt4TmrHeadInit(&head, NULL, NULL, 0, 0) == OK);
    kt4Timer *t = kt4TickTimerCreate(on_timer, 7, 0, 1, 0, &head);
    CHECK(t != NULL);
    for (int i = 0; i < 50 && fired == 0; ++i) {
        taskDelay(1);
        kt4ProcTimers(&head);
    }
    CHECK(fired == 7);
    CHECK(kt4TimerDelete(t, &head) == OK);
    CHECK(kt4TmrHeadDestroy(&head) == OK);

    /* Containers: a red-black tree keyed by an unsigned word of the caller's record. */
    struct route r[3] = {{"c", 30}, {"a", 10}, {"b", 20}};
    kt4RBTree *tree = kt4RBTreeCreate("routes", offsetof(struct route, key), sizeof(uint32_t), NULL,
                                      NULL, _RBTCompareUL);
    CHECK(tree != NULL);
    for (int i = 0; i < 3; ++i)
        CHECK(kt4RBTreeInsert(tree, &r[i]) == 1);
    struct route want = {NULL, 20}; /* a probe: the key at the record's offset */
    struct route *hit = (struct route *)kt4RBTreeGetExact(tree, &want);
    CHECK(hit != NULL && strcmp(hit->name, "b") == 0);
    for (int i = 0; i < 3; ++i)
        CHECK(kt4RBTreeRemove(tree, &r[i]) == &r[i]);
    kt4RBTreeDestroy(tree);

    /* Interface indexes, IPC addressing, task keys. */
    uint32_t ifx = ifmCreatePhysicalIfIndex(1, 2, 3, 4);
    CHECK(ifmIfIndexToSlotId(ifx) == 2);
    CHECK(kt4_getQueueId(5, 47, 1) == 0x2BD);
    CHECK(kt4GetTaskKeyFromServiceAndInst(13, 31) == (13 << 7 | 31 << 2));
    CHECK(kt4GetTaskKeyFromServiceAndInst(12, 0) == -1);

    /* Trace channel and platform names. */
    kt4TracePrintf(5, "kt4_c_example: trace from C\r\n");
    CHECK(kt4GetShmFileName(1) != NULL);

    /* System memory through the memory-pressure gate; the card's identity. */
    void *sys = M_sysMalloc("kt4_c_example", __LINE__, 256);
    CHECK(sys != NULL);
    CHECK(M_sysMemfree("kt4_c_example", __LINE__, sys) == OK);
    CHECK(kt4CardSlot() >= 0);

    printf("kt4_c_example: every family answered from C (queue id 0x%x, ifindex 0x%08x)\n",
           (unsigned)kt4_getQueueId(5, 47, 1), (unsigned)ifx);
    return 0;
}
