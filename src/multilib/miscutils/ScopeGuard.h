#pragma once

#include <type_traits>
#include <utility>

namespace miscUtils {

namespace detail {

/// Runs a clean-up function object when the scope is left, unless the success path
/// dismissed it first.
template <typename Function>
class ScopeGuardImpl
{
public:
    explicit ScopeGuardImpl(Function function) : m_function(std::move(function)) {}
    ~ScopeGuardImpl()
    {
        if (!m_dismissed)
            m_function();
    }

    ScopeGuardImpl(const ScopeGuardImpl&) = delete;
    ScopeGuardImpl& operator=(const ScopeGuardImpl&) = delete;

    void dismiss() noexcept { m_dismissed = true; }

private:
    Function m_function;
    bool m_dismissed = false;
};

} // namespace detail

/// `auto guard = miscUtils::makeScopeGuard([&] { undo(); }); ... guard.dismiss();`
template <typename Function>
[[nodiscard]] detail::ScopeGuardImpl<std::decay_t<Function>> makeScopeGuard(Function&& function)
{
    return detail::ScopeGuardImpl<std::decay_t<Function>>(std::forward<Function>(function));
}

} // namespace miscUtils
