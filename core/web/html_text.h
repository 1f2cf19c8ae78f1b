#pragma once

#include <QByteArrayView>
#include <QString>
#include <QUrl>

namespace kestrolan {

// The readable text of an HTML page, as the model is given it.
struct HtmlText {
    QString title;
    QString text;
    // Markup too deeply nested or with too many attributes to be read in reasonable time was
    // left out, and all after it.
    bool truncated = false;

    // `html` is UTF-8 (invalid sequences are repaired). Scripts, styles, templates and hidden
    // elements are dropped, block elements end lines, runs of white space become one space
    // outside <pre>, and a link's target, resolved against `base`, follows its text.
    static HtmlText fromHtml(QByteArrayView html, const QUrl& base = {});
};

} // namespace kestrolan
