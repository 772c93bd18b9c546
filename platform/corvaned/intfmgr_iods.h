// Which iod an interface name has: 1 to 767, the same over restarts.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace corvaned {

class iod_registry {
public:
    struct store {                                           // where the numbers are kept
        std::function<void(const std::string &name, std::uint32_t iod)> put;
        std::function<void(const std::string &name)> erase;
    };
    explicit iod_registry(store kept) : kept_(std::move(kept)) {}

    void load(const std::string &name, std::uint32_t iod);   // what was kept; a number given twice is dropped
    // The name's iod. Without one it gets the lowest free one; when all are taken, that of the name that was not in use
    // for the longest time, which `lost` is told of. 0 when all 767 are in use.
    [[nodiscard]] std::uint32_t assign(const std::string &name, const std::function<bool(std::uint32_t)> &in_use,
                                       const std::function<void(std::uint32_t)> &lost);
    [[nodiscard]] const std::map<std::uint32_t, std::string> &names() const { return names_; }

private:
    [[nodiscard]] std::uint32_t free_number() const;
    [[nodiscard]] std::uint32_t longest_unused(const std::function<bool(std::uint32_t)> &in_use) const;

    store kept_;
    std::map<std::string, std::uint32_t> iods_;
    std::map<std::uint32_t, std::string> names_;
    std::map<std::uint32_t, std::uint64_t> last_assigned_;
    std::uint64_t clock_ = 0;
};

} // namespace corvaned
