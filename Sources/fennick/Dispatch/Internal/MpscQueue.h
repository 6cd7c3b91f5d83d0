#pragma once
// An intrusive multi-producer, single-consumer FIFO (D. Vyukov's design).
//
// Producers never wait: a push is one exchange and one store. The price is a
// short window in which a pushed node is not yet linked; the consumer then sees
// "not ready" and must come back (it knows from its own counters that a node is
// on the way). Nodes carry `std::atomic<Node*> next` and must outlive their stay.
#include <atomic>

namespace fennick::dispatch::detail {

template <class Node>
class MpscQueue {
 public:
  MpscQueue() : head_(&stub_), tail_(&stub_) {}
  MpscQueue(const MpscQueue&) = delete;
  MpscQueue& operator=(const MpscQueue&) = delete;

  /// Any thread.
  void push(Node* node) noexcept {
    node->next.store(nullptr, std::memory_order_relaxed);
    Node* previous = head_.exchange(node, std::memory_order_acq_rel);
    previous->next.store(node, std::memory_order_release);
  }

  /// Consumer only. Returns the oldest node, or nullptr when the queue is empty
  /// or its next node is still being linked by a producer.
  Node* pop() noexcept {
    Node* tail = tail_;
    Node* next = tail->next.load(std::memory_order_acquire);
    if (tail == &stub_) {
      if (next == nullptr) return nullptr;
      tail_ = next;
      tail = next;
      next = next->next.load(std::memory_order_acquire);
    }
    if (next != nullptr) {
      tail_ = next;
      __builtin_prefetch(next);  // the consumer's next pop reads it
      return tail;
    }
    if (tail != head_.load(std::memory_order_acquire)) return nullptr;
    push(&stub_);
    next = tail->next.load(std::memory_order_acquire);
    if (next == nullptr) return nullptr;
    tail_ = next;
    return tail;
  }

 private:
  alignas(64) std::atomic<Node*> head_;  // producers' end
  alignas(64) Node* tail_;               // consumer's end
  Node stub_;
};

}  // namespace fennick::dispatch::detail
