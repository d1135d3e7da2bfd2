#ifndef VEXUPNPCP_BASE_HOST_MEMORY_H_
#define VEXUPNPCP_BASE_HOST_MEMORY_H_

#include <cstdlib>
#include <memory>
#include <string>

namespace vex_upnp {

// Memory that the host receives comes from malloc or calloc and goes back by free.

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};

template <typename T>
using FreePtr = std::unique_ptr<T, FreeDeleter>;

// For the plain records: an empty text gives an empty string, null means out of memory only.
char* CallocString(const std::string& text);

// For the streaming records: an empty text gives null.
char* MallocString(const std::string& text);

// A zeroed record, or null.
template <typename T>
T* CallocRecord() {
  return static_cast<T*>(std::calloc(1, sizeof(T)));
}

// Appends to a list through `next`, keeping the tail so that building it stays linear.
template <typename T>
void AppendNode(T*& head, T*& tail, T* node) {
  node->next = nullptr;
  if (tail != nullptr) {
    tail->next = node;
  } else {
    head = node;
  }
  tail = node;
}

// Calls `free_node` on each record of a list through `next`.
template <typename T, typename FreeNode>
void FreeChain(T* head, FreeNode free_node) {
  while (head != nullptr) {
    T* const next = head->next;
    free_node(head);
    head = next;
  }
}

}  // namespace vex_upnp

#endif  // VEXUPNPCP_BASE_HOST_MEMORY_H_
