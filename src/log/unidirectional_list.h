/// A singly linked list in the order of arrival, whose nodes come from blocks that are added to it and return
/// to its spare nodes when they are removed: once it has its blocks, it never allocates.
#pragma once

#include <stdint.h>

#include <type_traits>

namespace runlog {

/// `Node` is a trivial type with a member `Node* next`, which is the list's.
template <class Node>
class CUnidirectionalList {
  static_assert(std::is_trivially_destructible_v<Node>);

 public:
  [[nodiscard]] uint32_t Size() const { return size_; }
  [[nodiscard]] uint32_t Capacity() const { return capacity_; }
  [[nodiscard]] Node* First() const { return first_; }

  /// Adds `count` spare nodes, which the caller keeps until the list is no longer used.
  void AddSpare(Node* nodes, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      nodes[i].next = spare_;
      spare_ = &nodes[i];
    }
    capacity_ += count;
  }

  /// A node at the end, holding what it held before; null when no spare one is left.
  [[nodiscard]] Node* Append() {
    Node* node = spare_;
    if (node == nullptr) return nullptr;
    spare_ = node->next;
    node->next = nullptr;
    (last_ == nullptr ? first_ : last_->next) = node;
    last_ = node;
    ++size_;
    return node;
  }

  /// Removes the node behind `previous`, or the first one for null; it must be there.
  void RemoveAfter(Node* previous) {
    Node*& link = previous == nullptr ? first_ : previous->next;
    Node* node = link;
    link = node->next;
    if (last_ == node) last_ = previous;
    node->next = spare_;
    spare_ = node;
    --size_;
  }

 private:
  Node* first_ = nullptr;
  Node* last_ = nullptr;
  Node* spare_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
};

}  // namespace runlog
