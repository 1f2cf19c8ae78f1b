#pragma once

#include "web/web_address_policy.h"

#include <QString>
#include <chrono>

namespace kestrolan {

class OperationCancellation;

// Fetches one public web page for the model. Blocking: runs on the executor's queue.
class WebFetcher {
public:
    static constexpr int maxRedirects = 5;
    static constexpr qsizetype maxBodyBytes = 2'097'152;
    static constexpr int deadlineSeconds = 20;

    // The production policy refuses every non-public address; tests pass a policy that also
    // admits loopback. There is no other switch.
    explicit WebFetcher(WebAddressPolicy policy = WebAddressPolicy::publicOnly());
    // Tests shorten the deadline; the app always uses deadlineSeconds.
    WebFetcher(WebAddressPolicy policy, std::chrono::milliseconds deadline);

    // Returns the tool-result text (compact JSON: final URL, status, content type, title, text,
    // "untrusted": true, within 32 KiB). A body past maxBodyBytes is read no further and its
    // first maxBodyBytes are used, marked "truncated" like text cut to fit. Pages with error
    // statuses are returned as well: their text often says what went wrong. Throws
    // WebFetchError, whose description is the refusal the model reads, or CancellationError
    // once cancellation.isCancelled() turns true.
    QString fetch(const QString& url, const OperationCancellation& cancellation) const;

private:
    WebAddressPolicy m_policy;
    std::chrono::milliseconds m_deadline;
};

} // namespace kestrolan
