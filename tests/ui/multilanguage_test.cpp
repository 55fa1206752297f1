// Language files: the pair syntax and the shipped English file against the QML defaults.
#include "multilanguage.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>

#include <memory>
#include <utility>
#include <vector>

namespace {

using Pairs = std::vector<std::pair<QString, QString>>;

Pairs load(const QString& path)
{
    std::vector<QString> keys, values;
    MultiLanguage::loadKeyValues(path, &keys, &values);
    EXPECT_EQ(keys.size(), values.size());
    Pairs pairs;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i)
        pairs.emplace_back(keys[i], values[i]);
    return pairs;
}

struct Case {
    const char* name;
    const char* text;
    Pairs expected;
};

class LanguageFile : public ::testing::TestWithParam<Case> {};

TEST_P(LanguageFile, GivesThePairsOfItsLines)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("lang");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(GetParam().text);
    file.close();

    EXPECT_EQ(load(path), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LanguageFile,
    ::testing::Values(
        Case{"ShortestPair", "\"a\"=\"b\"\n", {{"a", "b"}}},
        Case{"EmptyQuotesSkipped", "\"\"=\"\"\n\"k\"=\"\"\n\"\"=\"v\"\n", {}},
        Case{"EscapedLineFeed", "\"k\"=\"one\\ntwo\"\n", {{"k", "one\ntwo"}}},
        Case{"SplitAtFirstEquals", "\"k\"=\"a=b\"\n", {{"k", "a=b"}}},
        Case{"SpacesTrimmed", "  \"k\"  =  \"v w\"  \n", {{"k", "v w"}}},
        Case{"LineWithoutEqualsIsKeyAndValue", "\"word\"\n", {{"word", "word"}}},
        Case{"FileOrderAndUtf8", "\"b\"=\"Grüße\"\n\n\"a\"=\"é\"", {{"b", "Grüße"}, {"a", "é"}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(LanguageFile, MissingFileGivesNothing)
{
    EXPECT_TRUE(load("/nonexistent/velora/lang/xx").empty());
}

// Every text of the English file is the default of the property of the same name in the
// calibration document, so that the file and the screens cannot drift apart.
TEST(EnglishFile, MatchesTheCalibrationTexts)
{
    const Pairs pairs = load(QCoreApplication::applicationDirPath() + "/config/lang/en");
    ASSERT_GE(pairs.size(), 14u);

    QQmlEngine engine;
    QQmlComponent component(&engine, QUrl("qrc:/qml/Calibration.qml"));
    std::unique_ptr<QObject> root(component.create());
    ASSERT_TRUE(root) << component.errorString().toStdString();
    for (const auto& [key, value] : pairs) {
        EXPECT_FALSE(value.isEmpty()) << key.toStdString();
        EXPECT_EQ(root->property(key.toUtf8()).toString(), value) << key.toStdString();
    }
}

} // namespace
