#pragma once

#include <QByteArray>
#include <QList>

namespace kestrolan {

class OperationCancellation;

// The entries of one open directory, "." and ".." excluded, sorted by their raw names.
class DirectoryReader {
public:
    struct Entry {
        QByteArray name;
        // A DT_* value; DT_UNKNOWN is resolved with lstat.
        unsigned char type = 0;
    };

    static QList<Entry> read(int directoryFd, const OperationCancellation& cancellation);
};

} // namespace kestrolan
