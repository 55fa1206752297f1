// Feeds arbitrary bytes to the language reader as a language file. Whatever the bytes, every
// pair it gives has a key and a value of at least one character, no value keeps the escape
// backslash-n, and there are no more pairs than lines.
#include "fuzzfile.h"
#include "multilanguage.h"
#include "quietqt.h"

#include <QString>

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static DiskFile file("lang");
    file.write(data, size);

    std::vector<QString> keys, values;
    MultiLanguage::loadKeyValues(QString::fromLocal8Bit(file.path()), &keys, &values);

    if (keys.size() != values.size() || keys.size() > size_t(std::count(data, data + size, '\n') + 1))
        std::abort();
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i].isEmpty() || values[i].isEmpty() || values[i].contains("\\n"))
            std::abort();
    }
    return 0;
}
