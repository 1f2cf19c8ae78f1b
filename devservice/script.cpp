#include "script.h"

#include "api_exception.h"

namespace kestrolan::devservice {

namespace {

constexpr qint64 maximumWaitMs = 600'000;
constexpr std::uint64_t maximumPlannedBytes = 64ULL * 1024 * 1024;

QString unescaped(const QString& text) {
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] != u'\\' || i + 1 == text.size()) {
            result.append(text[i]);
            continue;
        }
        const auto next = text[++i];
        if (next == u'n')
            result.append(u'\n');
        else if (next == u'r')
            result.append(u'\r');
        else if (next == u't')
            result.append(u'\t');
        else if (next == u'\\')
            result.append(u'\\');
        else
            result.append(u'\\').append(next);
    }
    return result;
}

class LineReader {
public:
    LineReader(int line, QString name, QString arguments)
        : m_line(line)
        , m_name(std::move(name))
        , m_rest(std::move(arguments)) {}

    [[noreturn]] void fail(const QString& rule) const {
        throw ApiException::invalidRequest(
            QStringLiteral("Line %1: @").arg(m_line) + m_name + u' ' + rule,
            QStringLiteral("messages"), QStringLiteral("invalid_script"));
    }

    QString word(const QString& rule) {
        const auto rest = m_rest.trimmed();
        const auto space = rest.indexOf(u' ');
        const auto word = space < 0 ? rest : rest.first(space);
        if (word.isEmpty())
            fail(rule);
        m_rest = space < 0 ? QString() : rest.sliced(space + 1);
        return word;
    }

    qint64 number(qint64 minimum, qint64 maximum, const QString& rule) {
        bool ok = false;
        const auto value = word(rule).toLongLong(&ok);
        if (!ok || value < minimum || value > maximum)
            fail(rule);
        return value;
    }

    QString rest() const { return m_rest; }
    bool atEnd() const { return m_rest.trimmed().isEmpty(); }
    void end() const {
        if (!atEnd())
            fail(QStringLiteral("takes no argument."));
    }

private:
    int m_line;
    QString m_name;
    QString m_rest;
};

} // namespace

Script Script::parse(const QString& message, int round) {
    // Every round is read into a script of its own, so that a bad line anywhere is refused.
    std::vector<Script> rounds(1);
    std::optional<QString> thenText;
    int nextToolIndex = 0;
    const auto lines = message.split(u'\n');
    for (qsizetype n = 0; n < lines.size(); ++n) {
        auto line = lines[n];
        if (line.endsWith(u'\r'))
            line.chop(1);
        const auto trimmed = QStringView(line).trimmed();
        if (!trimmed.startsWith(u'@'))
            continue;
        const auto start = line.indexOf(u'@');
        auto end = start + 1;
        while (end < line.size() && !line[end].isSpace())
            ++end;
        const auto name = line.sliced(start + 1, end - start - 1);
        auto arguments = line.sliced(end);
        if (arguments.startsWith(u' ') || arguments.startsWith(u'\t'))
            arguments.remove(0, 1);
        LineReader reader(int(n + 1), name, arguments);
        Script& script = rounds.back();

        Step step;
        if (name == u"text" || name == u"chunk") {
            step.kind = name == u"text" ? Step::Kind::text : Step::Kind::chunk;
            step.text = unescaped(reader.rest());
            if (step.text.isEmpty())
                reader.fail(QStringLiteral("needs text."));
        } else if (name == u"repeat") {
            const auto count =
                reader.number(1, 67'108'864, QStringLiteral("needs a count and text."));
            const auto text = unescaped(reader.rest());
            if (text.isEmpty())
                reader.fail(QStringLiteral("needs a count and text."));
            if (std::uint64_t(count) * std::uint64_t(text.toUtf8().size()) > maximumPlannedBytes)
                reader.fail(QStringLiteral("would produce more than 64 MiB."));
            step.kind = Step::Kind::chunk;
            step.text = text.repeated(count);
        } else if (name == u"tool" || name == u"tool-at") {
            step.kind = Step::Kind::tool;
            if (name == u"tool-at") {
                step.index = int(reader.number(0, 1000,
                                               QStringLiteral("needs an index, an id, a "
                                                              "name and arguments.")));
                step.id = reader.word(QStringLiteral("needs an index, an id, a name and "
                                                     "arguments."));
            } else {
                step.index = nextToolIndex;
                step.id = QStringLiteral("call_%1").arg(nextToolIndex + 1);
            }
            step.name = reader.word(QStringLiteral("needs a tool name and arguments."));
            step.arguments = reader.rest();
            nextToolIndex = std::max(nextToolIndex, step.index + 1);
        } else if (name == u"raw") {
            step.kind = Step::Kind::raw;
            step.text = unescaped(reader.rest());
        } else if (name == u"comment") {
            step.kind = Step::Kind::comment;
            step.text = reader.rest();
        } else if (name == u"keepalive") {
            const auto count = reader.atEnd() ? 1
                                              : reader.number(1, 1000,
                                                              QStringLiteral("takes a count from 1 "
                                                                             "to 1000."));
            reader.end();
            for (qint64 i = 0; i < count; ++i)
                script.steps.push_back(
                    Step{.kind = Step::Kind::comment, .text = QStringLiteral("keep-alive")});
            continue;
        } else if (name == u"stall" || name == u"delay") {
            step.kind = name == u"stall" ? Step::Kind::stall : Step::Kind::delay;
            step.duration = std::chrono::milliseconds(reader.number(
                0, maximumWaitMs, QStringLiteral("needs milliseconds from 0 to 600000.")));
            reader.end();
        } else if (name == u"error") {
            step.kind = Step::Kind::error;
            step.code = reader.word(QStringLiteral("needs a code and a message."));
            step.text = unescaped(reader.rest().trimmed());
            if (step.text.isEmpty())
                step.text = QStringLiteral("The scripted model failed.");
        } else if (name == u"drop" || name == u"truncate") {
            reader.end();
            step.kind = name == u"drop" ? Step::Kind::drop : Step::Kind::truncate;
        } else if (name == u"finish") {
            const auto reason = reader.word(QStringLiteral("needs a reason, or none."));
            reader.end();
            script.finishSet = true;
            script.finishReason = reason == u"none" ? std::nullopt : std::optional(reason);
            continue;
        } else if (name == u"usage") {
            if (reader.rest().trimmed() == u"none") {
                script.reportUsage = false;
                continue;
            }
            const auto rule = QStringLiteral("needs prompt and completion token counts, or none.");
            const auto prompt = reader.number(0, 1'000'000'000'000, rule);
            const auto completion = reader.number(0, 1'000'000'000'000, rule);
            reader.end();
            script.usage = TokenCounts{std::uint64_t(prompt), std::uint64_t(completion)};
            continue;
        } else if (name == u"billing") {
            const auto state = reader.word(QStringLiteral("needs a state."));
            reader.end();
            using Billing = GenerationOutcome::Billing;
            if (state == u"settled")
                script.billing = Billing::settled;
            else if (state == u"settled-no-amount")
                script.billing = Billing::settledWithoutAmount;
            else if (state == u"unresolved")
                script.billing = Billing::unresolved;
            else if (state == u"released")
                script.billing = Billing::released;
            else if (state == u"none")
                script.billing = Billing::none;
            else
                reader.fail(QStringLiteral("takes settled, settled-no-amount, unresolved, "
                                           "released or none."));
            continue;
        } else if (name == u"crlf" || name == u"bom") {
            reader.end();
            (name == u"crlf" ? script.crlf : script.byteOrderMark) = true;
            continue;
        } else if (name == u"then") {
            thenText = unescaped(reader.rest());
            continue;
        } else if (name == u"round") {
            reader.end();
            if (script.plannedBytes() > maximumPlannedBytes)
                throw ApiException::invalidRequest(
                    QStringLiteral("The script would produce more than 64 MiB."),
                    QStringLiteral("messages"), QStringLiteral("invalid_script"));
            rounds.emplace_back();
            nextToolIndex = 0;
            continue;
        } else if (name == u"tool-results") {
            reader.end();
            step.kind = Step::Kind::toolResults;
        } else if (name == u"reject") {
            const auto rule = QStringLiteral("needs a status from 400 to 599, a code and a "
                                             "message.");
            const auto status = reader.number(400, 599, rule);
            const auto code = reader.word(rule);
            const auto text = unescaped(reader.rest().trimmed());
            if (text.isEmpty())
                reader.fail(rule);
            script.rejection = Rejection{int(status), code, text};
            continue;
        } else {
            throw ApiException::invalidRequest(
                QStringLiteral("Line %1: unknown directive @").arg(n + 1) + name + u'.',
                QStringLiteral("messages"), QStringLiteral("invalid_script"));
        }
        script.steps.push_back(std::move(step));
    }
    if (rounds.back().plannedBytes() > maximumPlannedBytes)
        throw ApiException::invalidRequest(
            QStringLiteral("The script would produce more than 64 MiB."),
            QStringLiteral("messages"), QStringLiteral("invalid_script"));
    const auto count = int(rounds.size());
    // Past the last round the caller answers in words; it keeps the first round's options.
    Script script = std::move(rounds[round >= 0 && round < count ? std::size_t(round) : 0]);
    script.thenText = std::move(thenText);
    script.rounds = count;
    return script;
}

bool Script::hasToolCalls() const {
    for (const auto& step : steps)
        if (step.kind == Step::Kind::tool)
            return true;
    return false;
}

std::uint64_t Script::plannedBytes() const {
    std::uint64_t bytes = 0;
    for (const auto& step : steps) {
        if (step.kind == Step::Kind::text || step.kind == Step::Kind::chunk)
            bytes += std::uint64_t(step.text.toUtf8().size());
        else if (step.kind == Step::Kind::tool)
            bytes += std::uint64_t(step.name.toUtf8().size() + step.arguments.toUtf8().size());
    }
    return bytes;
}

} // namespace kestrolan::devservice
