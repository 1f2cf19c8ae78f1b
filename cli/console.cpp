#include "console.h"

#include <QByteArray>

namespace kestrolan::cli {
namespace {

void writeLine(std::FILE* stream, const QString& line) {
    QByteArray bytes = line.toUtf8();
    bytes.append('\n');
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

} // namespace

Console::Console(std::FILE* out, std::FILE* err)
    : m_out(out)
    , m_err(err) {}

void Console::out(const QString& line) const {
    writeLine(m_out, line);
}

void Console::err(const QString& line) const {
    writeLine(m_err, line);
}

} // namespace kestrolan::cli
