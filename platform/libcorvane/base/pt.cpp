// Exact-match tree: records by keys of a fixed length, ordered for the walks, hashed for the lookups.
#include "pt.h"

#include "fault.h"
#include "key_index.h"

#include <array>
#include <cstring>
#include <map>
#include <new>

namespace {

constexpr std::uint32_t KEY_BYTES_MAX = 32;
constexpr pt_attr ATTR_VALID = 0x10000, ATTR_EXACT = 0x20000, ATTR_KEY_BYTES = 0xFF;

struct pt_key {
    std::array<std::uint8_t, KEY_BYTES_MAX> bytes{};         // zero behind the key, so that whole arrays compare
    bool operator<(const pt_key &other) const { return bytes < other.bytes; }
};

struct pt_entry {
    const pt_key *key = nullptr;
    void *record = nullptr;
};

struct entry_key {
    const void *operator()(const pt_entry *entry) const { return entry->key->bytes.data(); }
};

} // namespace

struct pt_impl {
    explicit pt_impl(std::uint32_t bytes) : key_bytes(bytes), index(bytes, entry_key{}) {}
    [[nodiscard]] pt_key make_key(const void *key) const
    {
        pt_key made;
        std::memcpy(made.bytes.data(), key, key_bytes);
        return made;
    }
    std::uint32_t key_bytes;
    corvane::key_index<pt_entry, entry_key> index;
    std::map<pt_key, pt_entry> ordered;
};

pt_attr pt_attr_create(std::uint32_t /*flags*/, std::uint32_t exact, std::uint32_t key_bytes)
{
    if (corvane::base_refuses("pt_attr_create") || key_bytes == 0 || key_bytes > KEY_BYTES_MAX)
        return 0;
    return ATTR_VALID | (exact != 0 ? ATTR_EXACT : 0) | key_bytes;
}

void pt_init(pt_tree &tree, pt_attr attr)
{
    tree.impl = nullptr;
    tree.attr = attr;
}

void pt_destroy(pt_tree &tree)
{
    delete tree.impl;
    tree.impl = nullptr;
}

bool pt_insert(pt_tree &tree, const void *key, void *record)
{
    if (tree.attr == 0 || record == nullptr || corvane::base_refuses("pt_insert"))
        return false;
    try {
        if (tree.impl == nullptr)
            tree.impl = new pt_impl(tree.attr & ATTR_KEY_BYTES);
        pt_impl &t = *tree.impl;
        if (t.index.find(key) != nullptr)
            return false;
        const auto at = t.ordered.emplace(t.make_key(key), pt_entry{}).first;
        at->second = {&at->first, record};
        try {
            t.index.insert(&at->second);
        } catch (const std::bad_alloc &) {
            t.ordered.erase(at);
            return false;
        }
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

int pt_remove(pt_tree &tree, const void *key)
{
    if (tree.impl == nullptr || corvane::base_refuses("pt_remove"))
        return -1;
    const pt_entry *entry = tree.impl->index.find(key);
    if (entry == nullptr)
        return -1;
    tree.impl->index.erase(key);
    tree.impl->ordered.erase(tree.impl->make_key(key));
    return 0;
}

void *pt_find(const pt_tree &tree, const void *key)
{
    if (tree.impl == nullptr)
        return nullptr;
    const pt_entry *entry = tree.impl->index.find(key);
    return entry == nullptr ? nullptr : entry->record;
}

void *pt_first(const pt_tree &tree)
{
    if (tree.impl == nullptr || tree.impl->ordered.empty())
        return nullptr;
    return tree.impl->ordered.begin()->second.record;
}

void *pt_next(const pt_tree &tree, const void *key)
{
    if (tree.impl == nullptr)
        return nullptr;
    const auto at = tree.impl->ordered.upper_bound(tree.impl->make_key(key));
    return at == tree.impl->ordered.end() ? nullptr : at->second.record;
}

std::size_t pt_count(const pt_tree &tree)
{
    return tree.impl == nullptr ? 0 : tree.impl->ordered.size();
}
