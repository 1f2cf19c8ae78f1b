#include "scheduling/task_filter.h"

#include "support/enum_names.h"

namespace kestrolan {
namespace {

constexpr EnumNames filterNames(std::array{
    std::pair{TaskFilter::all, u"All"},
    std::pair{TaskFilter::active, u"Active"},
    std::pair{TaskFilter::paused, u"Paused"},
});

// Compatibility decomposition, combining marks dropped, case folded: "ﬁancé" becomes "fiance".
QString searchKey(const QString& text) {
    const QString decomposed = text.normalized(QString::NormalizationForm_KD);
    QString key;
    key.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        const auto category = c.category();
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_SpacingCombining ||
            category == QChar::Mark_Enclosing)
            continue;
        key.append(c);
    }
    return key.toCaseFolded();
}

} // namespace

QString toString(TaskFilter filter) {
    return filterNames.name(filter);
}

std::optional<TaskFilter> taskFilterFromString(QStringView text) {
    return filterNames.value(text);
}

bool containsIgnoringCaseAndDiacritics(const QString& text, const QString& query) {
    return searchKey(text).contains(searchKey(query));
}

QList<ScheduledTask> apply(TaskFilter filter, const QList<ScheduledTask>& tasks,
                           const QString& query) {
    const QString trimmed = query.trimmed();
    QList<ScheduledTask> kept;
    for (const auto& task : tasks) {
        if ((filter == TaskFilter::active && !task.enabled) ||
            (filter == TaskFilter::paused && task.enabled))
            continue;
        if (!trimmed.isEmpty() && !containsIgnoringCaseAndDiacritics(task.name, trimmed))
            continue;
        kept.append(task);
    }
    return kept;
}

} // namespace kestrolan
