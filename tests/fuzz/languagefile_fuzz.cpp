// Feeds arbitrary bytes to the language reader as a language file. Whatever the bytes, every
// pair it gives has a key and a value of at least one character, no value keeps the escape
// backslash-n, and there are no more pairs than lines.
#include "multilanguage.h"
#include "quietqt.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QString path = QDir::temp().filePath(QString("velora-fuzz-lang-%1").arg(getpid()));
    const QByteArray content(reinterpret_cast<const char*>(data), qsizetype(size));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
            std::abort();
    }

    std::vector<QString> keys, values;
    MultiLanguage::loadKeyValues(path, &keys, &values);

    if (keys.size() != values.size() || keys.size() > size_t(content.count('\n') + 1))
        std::abort();
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i].isEmpty() || values[i].isEmpty() || values[i].contains("\\n"))
            std::abort();
    }
    return 0;
}
