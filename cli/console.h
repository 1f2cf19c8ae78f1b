#pragma once

#include <QString>
#include <cstdio>

namespace kestrolan::cli {

// Where a command writes: results to standard output, failures and usage errors to standard
// error, each line as UTF-8.
class Console {
public:
    explicit Console(std::FILE* out = stdout, std::FILE* err = stderr);

    void out(const QString& line) const;
    void err(const QString& line) const;

private:
    std::FILE* m_out;
    std::FILE* m_err;
};

} // namespace kestrolan::cli
