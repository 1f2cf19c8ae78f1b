#include "qstring_printer.h"
#include "storage/agent.h"
#include "storage/editor_validation_error.h"
#include "support/json_reader.h"

#include <gtest/gtest.h>
#include <optional>

using namespace kestrolan;
using namespace Qt::StringLiterals;

namespace {

using Field = EditorValidationError::Field;

template <class F>
std::optional<EditorValidationError> failure(F check) {
    try {
        check();
    } catch (const EditorValidationError& error) {
        return error;
    }
    return std::nullopt;
}

CatalogModel model(const QString& id, bool available) {
    CatalogModel entry;
    entry.id = id;
    entry.displayName = id;
    entry.available = available;
    return entry;
}

const QList<CatalogModel> catalog = {model(u"small"_s, true), model(u"retired"_s, false)};

Agent agent(const QString& modelID, const QString& temperature = {}) {
    return Agent{QUuid::createUuid(),
                 u"Reviewer"_s,
                 u"Review the code."_s,
                 modelID,
                 temperature,
                 QDateTime::fromString(u"2025-03-01T10:00:00.000Z"_s, Qt::ISODateWithMs)};
}

const EditorValidationError chooseModel(Field::model, u"Choose an available model."_s);
const EditorValidationError badTemperature(Field::temperature,
                                           u"Enter a temperature from 0 to 2."_s);

} // namespace

TEST(AgentValidation, ModelMustBeAvailableInTheCatalog) {
    EXPECT_FALSE(failure([] { agent(u"small"_s).validate(catalog); }));
    EXPECT_EQ(failure([] { agent(u"retired"_s).validate(catalog); }), chooseModel);
    EXPECT_EQ(failure([] { agent(u"unknown"_s).validate(catalog); }), chooseModel);
    EXPECT_EQ(failure([] { agent(QString()).validate(catalog); }), chooseModel);
    EXPECT_EQ(failure([] { agent(u"small"_s).validate({}); }), chooseModel);
    // A kept agent whose model left the catalog is still a valid record.
    EXPECT_FALSE(failure([] { agent(u"retired"_s).validateExceptModel(); }));

    // Name and instructions are checked first, with the rules every editor shares.
    Agent unnamed = agent(u"unknown"_s, u"9"_s);
    unnamed.name = u"  "_s;
    EXPECT_EQ(failure([&] { unnamed.validate(catalog); }),
              EditorValidationError(Field::name, u"Enter a name."_s));
    Agent verbose = agent(u"unknown"_s);
    verbose.instructions = QString(32 * 1024 + 1, u'x');
    EXPECT_EQ(failure([&] { verbose.validate(catalog); })->field(), Field::instructions);
    Agent longName = agent(u"small"_s);
    longName.name = QString(201, u'n');
    EXPECT_EQ(failure([&] { longName.validate(catalog); }),
              EditorValidationError(Field::name, u"Keep the name under 201 characters."_s));
}

TEST(AgentValidation, TemperatureIsEmptyOrPlainDecimalFromZeroToTwo) {
    for (const QString& good : {u""_s, u"  "_s, u"0"_s, u"2"_s, u"2.0"_s, u"2.000"_s, u"0.7"_s,
                                u".5"_s, u"1."_s, u" 1.25 "_s}) {
        EXPECT_FALSE(failure([&] { agent(u"small"_s, good).validate(catalog); }))
            << good.toStdString();
    }
    for (const QString& bad : {u"2.01"_s, u"2.0000001"_s, u"-0"_s, u"-0.1"_s, u"3"_s, u"abc"_s,
                               u"1e0"_s, u"nan"_s, u"inf"_s, u"1,5"_s, u"0x1"_s, u"1 2"_s}) {
        EXPECT_EQ(failure([&] { agent(u"small"_s, bad).validate(catalog); }), badTemperature)
            << bad.toStdString();
        EXPECT_EQ(failure([&] { agent(u"retired"_s, bad).validateExceptModel(); }), badTemperature)
            << bad.toStdString();
    }
    EXPECT_EQ(agent(u"small"_s, u" 0.7 "_s).temperatureValue(), u"0.7"_s);
    EXPECT_EQ(agent(u"small"_s, u" "_s).temperatureValue(), std::nullopt);
}

TEST(Agent, TurnInstructionsAndJson) {
    Agent a = agent(u"small"_s, u"0.3"_s);
    a.instructions = u"\n  Review the code.  \n"_s;
    const auto instructions = a.turnInstructions();
    EXPECT_EQ(instructions.id, a.id);
    EXPECT_EQ(instructions.name, u"Reviewer");
    EXPECT_EQ(instructions.text, u"Review the code.");

    const QJsonObject json = a.toJson();
    EXPECT_EQ(json.keys(), (QStringList{u"createdAt"_s, u"id"_s, u"instructions"_s, u"model"_s,
                                        u"name"_s, u"temperature"_s}));
    EXPECT_EQ(Agent::fromJson(json), a);
    QJsonObject numeric = json;
    numeric.insert(u"temperature"_s, 0.3); // kept as text, never a number
    EXPECT_THROW(Agent::fromJson(numeric), JsonReader::FieldError);
    QJsonObject extra = json;
    extra.insert(u"color"_s, u"red"_s);
    EXPECT_THROW(Agent::fromJson(extra), JsonReader::FieldError);
}
