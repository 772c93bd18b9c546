// Numbers of interfaces.
#include "intfmgr_iods.h"

#include "../api/intfmgr.h"

namespace corvaned {

void iod_registry::load(const std::string &name, std::uint32_t iod)
{
    if (name.empty() || iod == 0 || iod > INTFMGR_IOD_MAX || names_.contains(iod) || iods_.contains(name)) {
        kept_.erase(name);
        return;
    }
    iods_[name] = iod;
    names_[iod] = name;
}

std::uint32_t iod_registry::free_number() const
{
    std::uint32_t number = 1;
    for (const auto &[iod, name] : names_) {
        if (iod != number)
            break;
        ++number;
    }
    return number <= INTFMGR_IOD_MAX ? number : 0;
}

std::uint32_t iod_registry::longest_unused(const std::function<bool(std::uint32_t)> &in_use) const
{
    const auto time_of = [&](std::uint32_t iod) {
        const auto at = last_assigned_.find(iod);
        return at == last_assigned_.end() ? 0 : at->second;
    };
    std::uint32_t oldest = 0;
    for (const auto &[iod, name] : names_)
        if (!in_use(iod) && (oldest == 0 || time_of(iod) < time_of(oldest)))
            oldest = iod;
    return oldest;
}

std::uint32_t iod_registry::assign(const std::string &name, const std::function<bool(std::uint32_t)> &in_use,
                                   const std::function<void(std::uint32_t)> &lost)
{
    const auto known = iods_.find(name);
    std::uint32_t iod = known != iods_.end() ? known->second : free_number();
    if (iod == 0) {
        iod = longest_unused(in_use);
        if (iod == 0)
            return 0;
        const std::string old = names_[iod];
        iods_.erase(old);
        kept_.erase(old);
        lost(iod);
    }
    last_assigned_[iod] = ++clock_;
    if (known == iods_.end()) {
        iods_[name] = iod;
        names_[iod] = name;
        kept_.put(name, iod);
    }
    return iod;
}

} // namespace corvaned
