// Prefix tree used for exact matches: keys of a fixed length in bytes, compared as bytes, values are the caller's
// records. Exact lookup does not grow with the number of records; walks go in ascending key order and resume from a
// key, so they survive yields.
#pragma once

#include <cstddef>
#include <cstdint>

using pt_attr = std::uint32_t;                                          // handle; 0 = none
struct pt_impl;
struct pt_tree {
    pt_impl *impl = nullptr;                                            // made by the first insertion
    pt_attr attr = 0;
};

[[nodiscard]] pt_attr pt_attr_create(std::uint32_t flags, std::uint32_t exact, std::uint32_t key_bytes);
void pt_init(pt_tree &tree, pt_attr attr);
void pt_destroy(pt_tree &tree);                                         // forgets the records, frees none
[[nodiscard]] bool pt_insert(pt_tree &tree, const void *key, void *record);   // false: key is there, or no memory
[[nodiscard]] int pt_remove(pt_tree &tree, const void *key);            // 0, or -1 when the key is not there
[[nodiscard]] void *pt_find(const pt_tree &tree, const void *key);
[[nodiscard]] void *pt_first(const pt_tree &tree);
[[nodiscard]] void *pt_next(const pt_tree &tree, const void *key);      // the record behind that key, there or not
[[nodiscard]] std::size_t pt_count(const pt_tree &tree);
