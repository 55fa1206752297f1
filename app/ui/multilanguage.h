#pragma once

#include <QString>

#include <vector>

class Ui;

// The language files of the screens under config/lang/: one "key"="value" pair a line.
class MultiLanguage {
public:
    // Reads and checks the screen's language file. The texts seen are the defaults of the
    // QML properties, which are the product's texts, so nothing is applied to the screen.
    static void setTexts(Ui* ui, const char* language);
    // Appends the file's pairs in file order; a missing file adds none.
    static void loadKeyValues(QString path, std::vector<QString>* keys, std::vector<QString>* values);
};
