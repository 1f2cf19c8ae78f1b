#include "account/model_picker_state.h"

#include <algorithm>

namespace kestrolan {

namespace {

// Decomposed, without combining marks, case-folded: "Élan" and "elan" compare equal.
QString searchable(const QString& text) {
    const QString decomposed = text.normalized(QString::NormalizationForm_KD);
    QString folded;
    folded.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        const auto category = c.category();
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_SpacingCombining ||
            category == QChar::Mark_Enclosing)
            continue;
        folded.append(c);
    }
    return folded.toCaseFolded();
}

} // namespace

QList<CatalogModel> ModelPickerState::filtered(const QList<CatalogModel>& models) const {
    const QString needle = searchable(query.trimmed());
    QList<CatalogModel> matching;
    for (const auto& model : models) {
        if (needle.isEmpty() || searchable(model.displayName).contains(needle) ||
            searchable(model.description).contains(needle))
            matching.append(model);
    }
    std::stable_partition(matching.begin(), matching.end(),
                          [](const CatalogModel& model) { return model.available; });
    return matching;
}

QList<CatalogModel> ModelPickerState::candidates(const QList<CatalogModel>& models) const {
    auto list = filtered(models);
    list.erase(std::remove_if(list.begin(), list.end(),
                              [](const CatalogModel& model) { return !model.available; }),
               list.end());
    return list;
}

void ModelPickerState::move(int delta, const QList<CatalogModel>& models) {
    const auto list = candidates(models);
    if (list.isEmpty())
        return;
    const auto current = std::find_if(list.begin(), list.end(), [this](const CatalogModel& model) {
        return highlightedID && model.id == *highlightedID;
    });
    if (current == list.end()) {
        highlightedID = delta < 0 ? list.last().id : list.first().id;
        return;
    }
    const qsizetype count = list.size();
    const qsizetype index = current - list.begin();
    highlightedID = list[((index + delta % count) + count) % count].id;
}

void ModelPickerState::reconcile(const QList<CatalogModel>& models) {
    const auto list = candidates(models);
    if (list.isEmpty()) {
        highlightedID.reset();
        return;
    }
    const bool kept = highlightedID && std::any_of(list.begin(), list.end(), [this](const auto& m) {
                          return m.id == *highlightedID;
                      });
    if (!kept)
        highlightedID = list.first().id;
}

} // namespace kestrolan
