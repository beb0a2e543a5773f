// The one callback type inside: a function and its data, empty when the caller's slot is null. The front doors make
// them from their records' slots, bare or with user data; the engines only call them.
#pragma once

#include <utility>

namespace vexo {

template <typename Signature>
class Callback;

template <typename Result, typename... Arguments>
class Callback<Result(Arguments...)> {
  public:
    using WithData = Result (*)(void *, Arguments...);
    using Bare = Result (*)(Arguments...);

    constexpr Callback() = default;
    // A slot with user data.
    constexpr Callback(WithData function, void *data)
        : m_function(function), m_data(function == nullptr ? nullptr : data) {}
    // A bare slot: the function itself is the data of a caller that knows its type.
    static Callback bare(Bare function) {
        if (function == nullptr) {
            return {};
        }
        return {[](void *data, Arguments... arguments) -> Result {
                    return reinterpret_cast<Bare>(data)(std::forward<Arguments>(arguments)...);
                },
                reinterpret_cast<void *>(function)};
    }

    explicit operator bool() const { return m_function != nullptr; }
    Result operator()(Arguments... arguments) const {
        return m_function(m_data, std::forward<Arguments>(arguments)...);
    }
    // This one, or the other when this one is empty.
    Callback or_else(Callback other) const { return m_function != nullptr ? *this : other; }

  private:
    WithData m_function = nullptr;
    void *m_data = nullptr;
};

} // namespace vexo
