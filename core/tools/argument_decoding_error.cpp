#include "tools/argument_decoding_error.h"

namespace kestrolan {

ArgumentDecodingError::ArgumentDecodingError()
    : Error(QStringLiteral("The data couldn't be read because it isn't in the correct format.")) {}

} // namespace kestrolan
