// price: the theoretical price and greeks of a European option for a given
// volatility, or the implied volatility (and greeks) for a given price; one
// option from the options, or a CSV of them with --table.
//
// The library prices without interest; a rate r is brought in through the
// forward F = S e^(rT): values are the library's on F, discounted by e^(-rT).
// Delta is then the library's delta on F, gamma is multiplied by e^(rT), vega
// discounted, and theta gains the carry term r (V - e^(-rT) deltaF F) / 365.
// Vega is per volatility point, theta per calendar day, a year is 365 days.

#include "celltext.h"
#include "dbtool.h"

#include <database/volat.h>

#include <QFile>

#include <cmath>

namespace dbtool {

namespace {

struct OptionInput
{
    bool put = false;
    double spot = 0;
    double strike = 0;
    double days = 0;
    double rate = 0;
    double volatility = -1; // percent; -1 when the price is given
    double price = -1;
};

struct OptionResult
{
    double price;
    double volatility;
    double delta;
    double gamma;
    double vega;
    double theta;
};

bool priceOption(const OptionInput &input, OptionResult &result, QString &error)
{
    const double years = input.days / 365.0;
    const double growth = std::exp(input.rate * years);
    VolatInputParams in {};
    in.strike = input.strike;
    in.price = input.spot * growth;
    in.sqrtTime = std::sqrt(years);
    in.curveSkewScale = 1;
    double volatility = input.volatility;
    if (volatility < 0) {
        volatility
            = volatByTheorPrice(in, input.put, input.price * growth, 0, 0.001, 1000, 1e-10, 1e-10);
        if (volatility < 0) {
            error = QStringLiteral("no volatility up to 1000% gives the price %1").arg(input.price);
            return false;
        }
    }
    VolatOutputParams out {};
    calcVolatParams(out, in, volatility);
    const double discount = 1 / growth;
    const double value = (input.put ? out.pricePut : out.priceCall) * discount;
    const double deltaForward = input.put ? out.deltaPut : out.deltaCall;
    result.price = value;
    result.volatility = volatility;
    result.delta = deltaForward;
    result.gamma = out.gamma * growth;
    result.vega = out.vega * discount;
    result.theta
        = out.theta * discount + input.rate * (value - discount * deltaForward * in.price) / 365.0;
    if (!std::isfinite(value) || !std::isfinite(result.theta)) {
        error = QStringLiteral("no finite price for these inputs");
        return false;
    }
    if (volatility == 0) {
        // The intrinsic value has no greeks but its delta.
        result.gamma = result.vega = result.theta = 0;
        result.delta
            = input.put ? (input.strike > in.price ? -1 : 0) : (in.price > input.strike ? 1 : 0);
    }
    return true;
}

bool checkInput(const OptionInput &input, QString &error)
{
    if (input.spot <= 0 || input.strike <= 0 || input.days <= 0) {
        error = QStringLiteral("spot, strike and days must be positive");
        return false;
    }
    if ((input.volatility < 0) == (input.price < 0)) {
        error = QStringLiteral("give the volatility or the option's price, one of them");
        return false;
    }
    return true;
}

bool readType(const QString &text, bool &put, QString &error)
{
    if (text.compare(QLatin1String("call"), Qt::CaseInsensitive) == 0
        || text.compare(QLatin1String("c"), Qt::CaseInsensitive) == 0)
        put = false;
    else if (text.compare(QLatin1String("put"), Qt::CaseInsensitive) == 0
             || text.compare(QLatin1String("p"), Qt::CaseInsensitive) == 0)
        put = true;
    else {
        error = QStringLiteral("'%1' is not call or put").arg(text);
        return false;
    }
    return true;
}

QString number(double value)
{
    return QString::number(value, 'g', 10);
}

// The inputs of one CSV row by header name; an absent or empty rate is 0.
bool readTableRow(const QStringList &header, const QVector<CsvField> &fields, OptionInput &input,
                  QString &error)
{
    if (fields.size() != header.size()) {
        error
            = QStringLiteral("%1 fields, the header has %2").arg(fields.size()).arg(header.size());
        return false;
    }
    for (int i = 0; i < header.size(); ++i) {
        const QString &name = header.at(i);
        const QString text = fields.at(i).text.trimmed();
        if (name == QLatin1String("type")) {
            if (!readType(text, input.put, error))
                return false;
            continue;
        }
        double *target = name == QLatin1String("spot") ? &input.spot
            : name == QLatin1String("strike")          ? &input.strike
            : name == QLatin1String("days")            ? &input.days
            : name == QLatin1String("rate")            ? &input.rate
            : name == QLatin1String("vol")             ? &input.volatility
            : name == QLatin1String("price")           ? &input.price
                                                       : nullptr;
        if (!target || text.isEmpty())
            continue;
        if (!readNumber(name, text, false, *target, error)) {
            error = QStringLiteral("column %1: '%2' is not a number").arg(name, text);
            return false;
        }
        if (target != &input.rate && *target < 0) {
            error = QStringLiteral("column %1: '%2' is negative").arg(name, text);
            return false;
        }
    }
    return checkInput(input, error);
}

int priceTable(const QString &path, Context &context)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return context.fail(ExitBadInput,
                            QStringLiteral("%1: can't open: %2").arg(path, file.errorString()));
    QTextStream in(&file);
    in.setCodec("UTF-8");
    CsvReader reader(in);
    QVector<CsvField> fields;
    if (!reader.readRecord(fields))
        return context.fail(ExitBadInput, QStringLiteral("%1: no header line").arg(path));
    QStringList header;
    for (const CsvField &field : qAsConst(fields))
        header << field.text.trimmed().toLower();
    for (const char *required : { "type", "spot", "strike", "days" }) {
        if (!header.contains(QLatin1String(required)))
            return context.fail(ExitBadInput,
                                QStringLiteral("%1:1: no column '%2' (columns: type, spot, "
                                               "strike, days, rate, vol, price)")
                                    .arg(path, QLatin1String(required)));
    }
    int code = ExitOk;
    context.out << "type,spot,strike,days,rate,vol,price,delta,gamma,vega,theta\n";
    while (reader.readRecord(fields)) {
        OptionInput input;
        OptionResult result;
        QString error;
        if (!readTableRow(header, fields, input, error) || !priceOption(input, result, error)) {
            code = context.fail(
                ExitBadInput,
                QStringLiteral("%1:%2: %3").arg(path).arg(reader.recordLine()).arg(error));
            continue;
        }
        context.out << (input.put ? "put" : "call") << ',' << number(input.spot) << ','
                    << number(input.strike) << ',' << number(input.days) << ','
                    << number(input.rate) << ',' << number(result.volatility) << ','
                    << number(result.price) << ',' << number(result.delta) << ','
                    << number(result.gamma) << ',' << number(result.vega) << ','
                    << number(result.theta) << '\n';
    }
    if (!reader.error().isEmpty())
        return context.fail(
            ExitBadInput,
            QStringLiteral("%1:%2: %3").arg(path).arg(reader.recordLine()).arg(reader.error()));
    return code;
}

} // namespace

void setupPrice(QCommandLineParser &parser)
{
    const auto value = [&parser](const char *name, const char *help, const char *valueName) {
        parser.addOption(
            QCommandLineOption(QLatin1String(name), QLatin1String(help), QLatin1String(valueName)));
    };
    value("spot", "Price of the underlying.", "S");
    value("strike", "Strike price.", "K");
    value("days", "Calendar days to expiry.", "D");
    value("rate", "Continuous interest rate, a fraction (0.05); default 0.", "R");
    value("vol", "Volatility in percent (20 for 20%): gives the price.", "V");
    value("price", "The option's price: gives the implied volatility.", "P");
    value("table",
          "Price every row of a CSV with columns type, spot, strike, days and vol or "
          "price (rate optional); writes CSV.",
          "IN.csv");
    parser.addPositionalArgument(QStringLiteral("TYPE"), QStringLiteral("call or put."),
                                 QStringLiteral("call|put"));
}

int runPrice(const QCommandLineParser &parser, Context &context)
{
    if (parser.isSet(QStringLiteral("table"))) {
        if (!parser.positionalArguments().isEmpty())
            return context.fail(ExitUsage, QStringLiteral("--table takes no other arguments"));
        return priceTable(parser.value(QStringLiteral("table")), context);
    }
    const QStringList args = parser.positionalArguments();
    if (args.size() != 1)
        return context.fail(ExitUsage, QStringLiteral("give call or put (or --table IN.csv)"));
    OptionInput input;
    QString error;
    if (!readType(args.first(), input.put, error))
        return context.fail(ExitUsage, error);
    const struct
    {
        const char *name;
        double *value;
        bool positive;
    } numbers[] = { { "spot", &input.spot, true },       { "strike", &input.strike, true },
                    { "days", &input.days, true },       { "rate", &input.rate, false },
                    { "vol", &input.volatility, false }, { "price", &input.price, false } };
    for (const auto &n : numbers) {
        const QString name = QLatin1String(n.name);
        if (!parser.isSet(name)) {
            if (n.positive)
                return context.fail(ExitUsage, QStringLiteral("give --%1").arg(name));
            continue;
        }
        if (!readNumber(name, parser.value(name), n.positive, *n.value, error))
            return context.fail(ExitUsage, error);
        if (n.value != &input.rate && *n.value < 0)
            return context.fail(
                ExitUsage, QStringLiteral("--%1: '%2' is negative").arg(name, parser.value(name)));
    }
    if (!checkInput(input, error))
        return context.fail(ExitUsage, error);
    OptionResult result;
    if (!priceOption(input, result, error))
        return context.fail(ExitBadInput, error);
    QTextStream &out = context.out;
    out << (input.put ? "put" : "call") << " spot " << number(input.spot) << " strike "
        << number(input.strike) << " days " << number(input.days) << " rate " << number(input.rate)
        << '\n';
    out << "price       " << number(result.price) << '\n'
        << "volatility  " << number(result.volatility) << "%"
        << (parser.isSet(QStringLiteral("price")) ? " (implied)" : "") << '\n'
        << "delta       " << number(result.delta) << '\n'
        << "gamma       " << number(result.gamma) << '\n'
        << "vega        " << number(result.vega) << " per volatility point\n"
        << "theta       " << number(result.theta) << " per day\n";
    return ExitOk;
}

} // namespace dbtool
