// Ordered tree of records that carry their node header in front: 16 bytes of header, the key behind it. The tree does
// not own the records. Exact lookup does not grow with the number of records.
#pragma once

#include <cstddef>
#include <cstdint>

struct avlt_node {
    std::uint32_t word[4] = {0, 0, 0, 0};     // owned by the tree; zero while the record is in no tree
};
inline constexpr std::uint32_t AVLT_NODE_SIZE = 16;
static_assert(sizeof(avlt_node) == AVLT_NODE_SIZE);

inline constexpr int AVLT_EQUAL = 0, AVLT_GREATER = 1, AVLT_SMALLER = 2;
using avlt_compare = int (*)(const void *key1, const void *key2);      // the first against the second

struct avlt_impl;
struct avlt_tree {
    avlt_impl *impl = nullptr;
};

[[nodiscard]] bool avlt_init(avlt_tree &tree, std::uint32_t key_length, std::uint32_t key_offset, avlt_compare compare);
void avlt_destroy(avlt_tree &tree);                                    // forgets the records, frees none
[[nodiscard]] bool avlt_insert(avlt_tree &tree, avlt_node *node);      // false: the key is there already, or no memory
bool avlt_remove(avlt_tree &tree, avlt_node *node);
[[nodiscard]] avlt_node *avlt_find(const avlt_tree &tree, const void *key);
[[nodiscard]] std::size_t avlt_count(const avlt_tree &tree);

// In-order walk that survives yields: the iterator remembers the last key, not a node.
struct avlt_iterator {
    const avlt_tree *tree = nullptr;
    std::uint8_t key[32] = {};
    bool started = false;
};
void avlt_iterator_init(avlt_iterator &iterator, const avlt_tree &tree);
[[nodiscard]] avlt_node *avlt_next(avlt_iterator &iterator);           // null at the end
// Marks where the walk stands and gives the process lock up for a moment when another thread waits for it.
void avlt_pre_sched_yield(avlt_iterator &iterator);
