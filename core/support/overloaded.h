#pragma once

namespace kestrolan {

// Builds one visitor for std::visit from several lambdas.
template <typename... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

} // namespace kestrolan
