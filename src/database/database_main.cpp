// The library's main object: created by a static initialiser when the library
// is loaded, it registers the library's value types with Qt's meta-type system,
// so that variants holding them compare, stream and convert to text, and
// queued signals can carry them.

#include <database/datetime.h>
#include <database/decimal.h>
#include <database/record.h>

#include <QMetaType>
#include <QSequentialIterable>
#include <QVector>

namespace Database {

namespace {

// Registers From -> To once; Qt itself may already know some conversions (it
// adds the sequential view of its containers on registration) and warns when a
// conversion is registered twice.
template <typename From, typename To, typename Function> void registerConverterOnce(Function f)
{
    if (!QMetaType::hasRegisteredConverterFunction(qMetaTypeId<From>(), qMetaTypeId<To>()))
        QMetaType::registerConverter<From, To>(f);
}

template <typename T> void registerComparatorsOnce()
{
    if (!QMetaType::hasRegisteredComparators<T>())
        QMetaType::registerComparators<T>();
}

} // namespace

class Main
{
public:
    Main()
    {
        qRegisterMetaType<Record>("Record");

        qRegisterMetaType<decimal>("decimal");
        qRegisterMetaTypeStreamOperators<decimal>("decimal");
        registerComparatorsOnce<decimal>();
        registerConverterOnce<decimal, QString>(&decimal::toString);
        registerConverterOnce<decimal, double>(&decimal::toDouble);

        qRegisterMetaType<datetime>("datetime");
        qRegisterMetaTypeStreamOperators<datetime>("datetime");
        registerComparatorsOnce<datetime>();
        registerConverterOnce<datetime, QString>(&datetime::toString);

        qRegisterMetaType<QVector<int>>("QVector<int>");
        registerConverterOnce<QVector<int>, QtMetaTypePrivate::QSequentialIterableImpl>(
            QtMetaTypePrivate::QSequentialIterableConvertFunctor<QVector<int>>());
    }
};

static Main main;

} // namespace Database
