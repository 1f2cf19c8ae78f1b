#pragma once

#include <QtGlobal>
#include <limits>

namespace kestrolan {

// Generations, epochs and revisions never wrap: an overflow is a programming error.
template <typename T>
void checkedIncrement(T& counter) {
    if (counter == std::numeric_limits<T>::max())
        qFatal("counter overflow");
    ++counter;
}

} // namespace kestrolan
