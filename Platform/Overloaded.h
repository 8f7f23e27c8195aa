#pragma once

namespace platform {

// A visitor made of lambdas, one for each alternative of a variant.
template <typename... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <typename... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

} // namespace platform
