// The queues through which the daemon's threads hand each other records: MCU replies to the thread
// that waits for one, control requests to the main thread.
#pragma once

#include <cerrno>

#include "platform/delay.h"
#include "platform/mutex.h"

// A circular doubly-linked list around one sentinel. Owns its nodes, never the records.
template <typename Record>
class MessageList {
  public:
    MessageList() : sentinel_(new Node{nullptr, nullptr, nullptr}) {
        sentinel_->previous = sentinel_->next = sentinel_;
    }
    MessageList(const MessageList&) = delete;
    MessageList& operator=(const MessageList&) = delete;
    virtual ~MessageList() {
        Clear();
        delete sentinel_;
    }

    [[nodiscard]] bool empty() const { return sentinel_->next == sentinel_; }

    void Append(Record* record) {
        Node* node = new Node{record, sentinel_->previous, sentinel_};
        sentinel_->previous->next = node;
        sentinel_->previous = node;
    }

    // The list must not be empty.
    [[nodiscard]] Record* TakeFirst() {
        Node* node = sentinel_->next;
        Record* record = node->record;
        sentinel_->next = node->next;
        node->next->previous = sentinel_;
        delete node;
        return record;
    }

    void Clear() {
        while (!empty()) (void)TakeFirst();
    }

  private:
    struct Node {
        Record* record;
        Node* previous;
        Node* next;
    };

    Node* sentinel_;
};

// A first-in, first-out queue for one or more producers and consumers. A record belongs to the
// queue from EnqueueMessage until it is taken; records still queued when it is destroyed are not
// freed.
template <typename Record>
class MessageQueue {
  public:
    MessageQueue() = default;
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;
    virtual ~MessageQueue() = default;

    // Appends the record and wakes one waiter, after the mutex has been released. Returns 0.
    int EnqueueMessage(Record* record) EXCLUDES(mutex_) {
        {
            const MutexLock lock(mutex_);
            list_.Append(record);
        }
        condition_.Signal();
        return 0;
    }

    // Blocks until a record is there.
    [[nodiscard]] Record* DequeueMessage() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        while (list_.empty()) condition_.Wait(mutex_);
        return list_.TakeFirst();
    }

    // Returns the oldest record at once when there is one. Otherwise waits until the wall clock
    // reaches the whole second timeout_sec from now, so for timeout_sec - 1 to timeout_sec
    // seconds, and returns null when none has come.
    [[nodiscard]] Record* DequeueMessageTimeout(int timeout_sec) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        if (list_.empty()) {
            const std::time_t deadline_sec = WallClockSec() + timeout_sec;
            while (list_.empty()) {
                if (condition_.WaitUntil(mutex_, deadline_sec) == ETIMEDOUT) break;
            }
        }
        return list_.empty() ? nullptr : list_.TakeFirst();
    }

  private:
    Mutex mutex_;
    MessageList<Record> list_ GUARDED_BY(mutex_);
    CondVar condition_;
};
