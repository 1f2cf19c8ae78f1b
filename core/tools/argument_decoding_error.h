#pragma once

#include "error.h"

namespace kestrolan {

// Tool-call arguments that are not a JSON object, or hold a value of the wrong JSON type.
class ArgumentDecodingError : public Error {
public:
    ArgumentDecodingError();
};

} // namespace kestrolan
