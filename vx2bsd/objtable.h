// The object tables of the tasking layer: one per kind of object (semaphores, message queues,
// watchdogs, timers), each with its table lock, and each finding a record from its handle in
// constant time without reading the record, so a stale or foreign handle is refused without
// touching freed memory.
//
// Validation takes the table lock, finds the record and locks the record's own lock before the
// table lock is released (table lock, then object lock: the order of the whole layer). A delete
// holds both while it takes the record out of the table, so once it has, no caller can reach the
// record any more.
//
// Two indexes: AddrIndex for the kinds whose handle is the record's address (queues,
// watchdogs, timers), a hash set of live addresses plus the list of records in creation order;
// and the numbered index of the semaphores (sem.cpp), whose handle is an entry number with a
// generation.
#pragma once

#include "vx2bsd/vx2bsd_int.h"

#include <cstddef>

namespace kt4::vx {

// A set of record addresses, open addressing with linear probing. Its storage comes from the
// task allocator and is given back when the set empties. Caller serialises.
class AddrSet {
  public:
    AddrSet() = default;
    AddrSet(const AddrSet &) = delete;
    AddrSet &operator=(const AddrSet &) = delete;

    bool contains(const void *p) const;
    // False when the set could not grow (out of memory); p is then not in the set.
    bool insert(const void *p);
    void erase(const void *p);
    size_t size() const { return n_; }

  private:
    size_t home(uintptr_t key) const;
    bool rehash(size_t cap);

    uintptr_t *slots_ = nullptr; // 0 is a free slot
    size_t cap_ = 0;             // a power of two, or 0
    size_t n_ = 0;
};

// Records named by their address. T has the documented `next` link (creation order) and the
// host addition `prev`. Caller holds the table lock.
template <typename T> class AddrIndex {
  public:
    using Handle = T *;

    T *find(Handle h) const { return (h != nullptr && set_.contains(h)) ? h : nullptr; }
    // Appends at the tail of the creation order; false when out of memory.
    bool add(T *r) {
        if (!set_.insert(r)) return false;
        r->next = nullptr;
        r->prev = tail_;
        if (tail_ != nullptr)
            tail_->next = r;
        else
            head_ = r;
        tail_ = r;
        return true;
    }
    void remove(T *r) {
        set_.erase(r);
        if (r->prev != nullptr)
            r->prev->next = r->next;
        else
            head_ = r->next;
        if (r->next != nullptr)
            r->next->prev = r->prev;
        else
            tail_ = r->prev;
        r->next = r->prev = nullptr;
    }
    T *first() const { return head_; }

  private:
    AddrSet set_;
    T *head_ = nullptr;
    T *tail_ = nullptr;
};

// The table of one kind of object: its lock and its index. `Index` provides Handle,
// find(handle), and whatever creation and deletion the kind needs.
template <typename T, typename Index> class ObjTable {
  public:
    using Handle = typename Index::Handle;

    // The texts are the report texts of the table lock and of the record's own lock.
    constexpr ObjTable(const char *lock_text, const char *unlock_text, pthread_mutex_t T::*obj_lock,
                       const char *obj_lock_text)
        : lock_text_(lock_text), unlock_text_(unlock_text), obj_lock_(obj_lock),
          obj_lock_text_(obj_lock_text) {}
    ObjTable(const ObjTable &) = delete;
    ObjTable &operator=(const ObjTable &) = delete;

    // Makes the table lock recursive (before first use).
    int init_recursive() {
        pthread_mutexattr_t ma;
        int rc = pthread_mutexattr_init(&ma);
        if (rc != 0) return rc;
        rc = pthread_mutexattr_settype(&ma, PTHREAD_MUTEX_RECURSIVE);
        if (rc == 0) rc = pthread_mutex_init(&mutex_, &ma);
        pthread_mutexattr_destroy(&ma);
        return rc;
    }

    void lock() {
        sig_defer();
        KT4_VERIFY_AS(pthread_mutex_lock(&mutex_) == 0, lock_text_);
    }
    void unlock() {
        KT4_VERIFY_AS(pthread_mutex_unlock(&mutex_) == 0, unlock_text_);
        sig_undefer();
    }

    // The index; caller holds the table lock.
    Index &index() { return index_; }

    // Locks a record's own lock (caller holds the table lock, or has the record to itself).
    void lock_record(T *r) {
        sig_defer();
        KT4_VERIFY_AS(pthread_mutex_lock(&(r->*obj_lock_)) == 0, obj_lock_text_);
    }

    // Finds the record of a handle and returns it with its own lock taken before the table lock
    // was released (the caller adopts it into an ObjLock), or null for an unknown handle.
    T *validate(Handle h) {
        lock();
        T *r = index_.find(h);
        if (r != nullptr) lock_record(r);
        unlock();
        return r;
    }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    const char *lock_text_;
    const char *unlock_text_;
    pthread_mutex_t T::*obj_lock_;
    const char *obj_lock_text_;
    Index index_;
};

// One pass of a countdown list (watchdogs every tick, timers every second): for each record from
// the head of the creation order, validate it (a record no longer in the table ends the pass),
// note its successor, and when `remaining` is at least 1 count it down; at 0, `expire(record,
// lock)` runs with the record's lock held and releases it before it calls user code. With
// hold_table the table lock (recursive) is held across each record and its expiry, else it is
// released as soon as the record is locked. Each step is constant time, so a pass is linear in
// the number of records.
template <typename T, typename Expire>
void count_down(ObjTable<T, AddrIndex<T>> &table, pthread_mutex_t T::*obj_lock,
                const char *lock_text, const char *unlock_text, bool hold_table, Expire expire) {
    table.lock();
    T *r = table.index().first();
    table.unlock();
    while (r != nullptr) {
        table.lock();
        if (table.index().find(r) == nullptr) { // deleted since we noted it: this pass ends
            table.unlock();
            return;
        }
        ObjLock lk(r->*obj_lock, lock_text, unlock_text);
        lk.lock();
        T *next = r->next;
        if (!hold_table) table.unlock();
        if (r->remaining >= 1) {
            r->remaining -= 1;
            if (r->remaining == 0) expire(r, lk);
        }
        if (lk.held()) lk.unlock();
        if (hold_table) table.unlock();
        r = next;
    }
}

} // namespace kt4::vx
