// Fuzz target of the decimal text parsers: arbitrary bytes, read as UTF-8, go
// through the exact grammar and the locale and free-form parsers. Each parser
// either refuses with its message or gives a value whose own text form (when
// the exact grammar can hold it) reads back as the same value, and which
// survives rescaling and comparison with itself.
#include <database/decimal.h>

#include <QLocale>
#include <QString>

#include <cstdint>
#include <cstdlib>

namespace {

const QString kMessageStart = QStringLiteral("Невозможно создать decimal по строке '");

template <typename Parse> void check(Parse parse)
{
    decimal value;
    try {
        value = parse();
    } catch (const QString &message) {
        if (!message.startsWith(kMessageStart))
            std::abort();
        return;
    }
    if (value.compare(value) != 0)
        std::abort();
    // Whole numbers past 18 digits are beyond the 64-bit integer grammar.
    const QString text = value.toString();
    if (text.size() <= 18) {
        if (decimal::fromString(text) != value)
            std::abort();
        if (decimal::fromLocaleString(value.toLocaleString(QLocale::c()), QLocale::c()) != value)
            std::abort();
    }
    if (value.scale() < decimal::MaxScale) {
        decimal rescaled = value;
        rescaled.setScale(value.scale() + 1);
        rescaled.setScale(value.scale());
        if (rescaled != value)
            std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 4096)
        return 0;
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    static const QLocale russian(QLocale::Russian, QLocale::Russia);
    static const QLocale english(QLocale::English, QLocale::UnitedStates);
    check([&] { return decimal::fromString(text); });
    check([&] { return decimal::fromLocaleString(text, russian); });
    check([&] { return decimal::fromLocaleString(text, english, 2); });
    bool ok = false;
    const decimal any = decimal::fromAnyString(text, &ok);
    if (ok != decimal::canConvert(text, true) || (!ok && !any.isZero()))
        std::abort();
    return 0;
}
