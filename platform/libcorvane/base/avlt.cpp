// Ordered tree of records with their header in front: an ordered map for the walks, a hash index for exact lookups.
#include "avlt.h"

#include "fault.h"
#include "key_index.h"
#include "plock.h"

#include <cstring>
#include <map>
#include <new>

namespace {

constexpr std::uint32_t IN_TREE = 0x41564C54;                // word 0 of a node that is in a tree

struct key_smaller {
    avlt_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) == AVLT_SMALLER; }
};

struct node_key {
    std::uint32_t offset;
    const void *operator()(const avlt_node *node) const
    {
        return reinterpret_cast<const std::uint8_t *>(node) + offset;
    }
};

} // namespace

struct avlt_impl {
    avlt_impl(std::uint32_t length, std::uint32_t offset, avlt_compare compare)
        : key_length(length), key_of{offset}, index(length, key_of), ordered(key_smaller{compare})
    {
    }
    std::uint32_t key_length;
    node_key key_of;
    corvane::key_index<avlt_node, node_key> index;
    std::map<const void *, avlt_node *, key_smaller> ordered;
};

bool avlt_init(avlt_tree &tree, std::uint32_t key_length, std::uint32_t key_offset, avlt_compare compare)
{
    if (corvane::base_refuses("avlt_init") || compare == nullptr || key_length == 0 ||
        key_length > sizeof avlt_iterator::key)
        return false;
    tree.impl = new (std::nothrow) avlt_impl(key_length, key_offset, compare);
    return tree.impl != nullptr;
}

void avlt_destroy(avlt_tree &tree)
{
    delete tree.impl;
    tree.impl = nullptr;
}

bool avlt_insert(avlt_tree &tree, avlt_node *node)
{
    if (tree.impl == nullptr || corvane::base_refuses("avlt_insert"))
        return false;
    avlt_impl &t = *tree.impl;
    const void *key = t.key_of(node);
    if (t.index.find(key) != nullptr)
        return false;
    try {
        const auto [at, inserted] = t.ordered.emplace(key, node);
        if (!inserted)
            return false;
        try {
            t.index.insert(node);
        } catch (const std::bad_alloc &) {
            t.ordered.erase(at);
            return false;
        }
    } catch (const std::bad_alloc &) {
        return false;
    }
    *node = avlt_node{{IN_TREE, 0, 0, 0}};
    return true;
}

bool avlt_remove(avlt_tree &tree, avlt_node *node)
{
    if (tree.impl == nullptr || node == nullptr || node->word[0] != IN_TREE)
        return false;
    avlt_impl &t = *tree.impl;
    const void *key = t.key_of(node);
    if (t.index.find(key) != node)
        return false;
    t.index.erase(key);
    t.ordered.erase(key);
    *node = avlt_node{};
    return true;
}

avlt_node *avlt_find(const avlt_tree &tree, const void *key)
{
    return tree.impl == nullptr ? nullptr : tree.impl->index.find(key);
}

std::size_t avlt_count(const avlt_tree &tree)
{
    return tree.impl == nullptr ? 0 : tree.impl->ordered.size();
}

void avlt_iterator_init(avlt_iterator &iterator, const avlt_tree &tree)
{
    iterator = avlt_iterator{};
    iterator.tree = &tree;
}

avlt_node *avlt_next(avlt_iterator &iterator)
{
    if (iterator.tree == nullptr || iterator.tree->impl == nullptr)
        return nullptr;
    const avlt_impl &t = *iterator.tree->impl;
    const auto at = iterator.started ? t.ordered.upper_bound(iterator.key) : t.ordered.begin();
    if (at == t.ordered.end())
        return nullptr;
    std::memcpy(iterator.key, at->first, t.key_length);
    iterator.started = true;
    return at->second;
}

// The place is the key that avlt_next noted, so nothing remains to be marked here.
void avlt_pre_sched_yield(avlt_iterator & /*iterator*/)
{
    plock_assert_held();
    plock_sched_yield();
}
