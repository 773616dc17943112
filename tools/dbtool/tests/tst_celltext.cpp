// dbtool's text forms of cells and its CSV reader: what export writes must
// read back to the same cell, and the reader must tell null from empty, keep
// line numbers across quoted line breaks and stop cleanly on bad input.
#include "celltext.h"

#include <QtTest>

using namespace dbtool;

class TestCellText : public QObject
{
    Q_OBJECT

private:
    static QVector<QVector<CsvField>> readAll(const QByteArray &csv, QString *error = nullptr,
                                              int *line = nullptr)
    {
        QTextStream in(csv);
        in.setCodec("UTF-8");
        CsvReader reader(in);
        QVector<QVector<CsvField>> records;
        QVector<CsvField> fields;
        while (reader.readRecord(fields))
            records << fields;
        if (error)
            *error = reader.error();
        if (line)
            *line = reader.recordLine();
        return records;
    }

private slots:
    void roundTrip_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("text");
        QTest::newRow("int min") << int(FieldType::Integer) << "-2147483648";
        QTest::newRow("int64 max") << int(FieldType::Integer64) << "9223372036854775807";
        QTest::newRow("double shortest") << int(FieldType::Double) << "0.1";
        QTest::newRow("double tiny") << int(FieldType::Double) << "5e-324";
        QTest::newRow("decimal keeps scale") << int(FieldType::Decimal) << "101.50";
        QTest::newRow("decimal past 18 digits")
            << int(FieldType::Decimal) << "1000000000000000000000000000000";
        QTest::newRow("text with quote, comma") << int(FieldType::VarChar) << "a \"b\", c";
        QTest::newRow("empty text") << int(FieldType::VarChar) << "";
        QTest::newRow("date time") << int(FieldType::DateTime) << "1969.12.31 23:59:59.999";
        QTest::newRow("board pairs in order") << int(FieldType::BoardList) << "2:7 1:5 2:3";
    }
    void roundTrip()
    {
        QFETCH(int, type);
        QFETCH(QString, text);
        FieldValue cell(FieldType::Type(type), type == FieldType::VarChar ? 16 : 0, true);
        QString error;
        QVERIFY2(setCellText(cell, text, error), qPrintable(error));
        QCOMPARE(cellText(cell), text);
        QVERIFY(!cellText(cell).isNull());
        // Through CSV quoting and back.
        const QByteArray line = csvField(cellText(cell)).toUtf8() + ",x\n";
        const auto records = readAll(line);
        QCOMPARE(records.size(), 1);
        QCOMPARE(records.at(0).at(0).cell(), text);
        QVERIFY(!records.at(0).at(0).cell().isNull());
    }

    void refusals_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("text");
        QTest::newRow("int overflow") << int(FieldType::Integer) << "2147483648";
        QTest::newRow("int with text") << int(FieldType::Integer) << "12abc";
        QTest::newRow("decimal garbage") << int(FieldType::Decimal) << "1.2.3";
        QTest::newRow("text too long") << int(FieldType::VarChar) << "seventeen chars!!";
        QTest::newRow("date without time zone sense") << int(FieldType::DateTime) << "2023.02.30";
        QTest::newRow("board pair without colon") << int(FieldType::BoardList) << "1:2 3";
    }
    void refusals()
    {
        QFETCH(int, type);
        QFETCH(QString, text);
        FieldValue cell(FieldType::Type(type), type == FieldType::VarChar ? 16 : 0, true);
        QString error;
        QVERIFY(!setCellText(cell, text, error));
        QVERIFY(error.contains(text));
        QVERIFY(cell.isNull());
    }

    void nullAndEmpty()
    {
        FieldValue text(FieldType::VarChar, 4, true);
        FieldValue notNull(FieldType::Integer, 0, false);
        FieldValue date(FieldType::DateTime, 0, false);
        QString error;
        QVERIFY(setCellText(text, QString(""), error));
        QVERIFY(!text.isNull());
        QCOMPARE(csvField(cellText(text)), QString("\"\""));
        QVERIFY(setCellText(text, QString(), error));
        QVERIFY(text.isNull());
        QCOMPARE(csvField(cellText(text)), QString());
        QVERIFY(!setCellText(notNull, QString(), error));
        // "No date" has no text: a DateTime that may not be null takes it back.
        QVERIFY(setCellText(date, QString(), error));
        QVERIFY(!date.isNull());
        QCOMPARE(date.get<qint64>(), qint64(0));
    }

    void compareOrdersNullFirstAndNaNLast()
    {
        FieldValue a(FieldType::Double, 0, true), b(FieldType::Double, 0, true);
        QString error;
        QCOMPARE(compareCells(a, b), 0);
        setCellText(b, QStringLiteral("-1e300"), error);
        QCOMPARE(compareCells(a, b), -1);
        setCellText(a, QStringLiteral("nan"), error);
        QCOMPARE(compareCells(a, b), 1);
        QCOMPARE(compareCells(b, a), -1);
    }

    void csvRecords()
    {
        const QByteArray csv = "\xef\xbb\xbfid,\"note\"\r\n"
                               "1,\"two\nlines, \"\"quoted\"\"\"\r\n"
                               "2,,\"\"\n"
                               "\n";
        QString error;
        const auto records = readAll(csv, &error);
        QVERIFY(error.isEmpty());
        QCOMPARE(records.size(), 4);
        QCOMPARE(records.at(0).at(0).text, QString("id"));
        QCOMPARE(records.at(1).at(1).text, QString("two\nlines, \"quoted\""));
        QCOMPARE(records.at(2).size(), 3);
        QVERIFY(records.at(2).at(1).cell().isNull());
        QVERIFY(!records.at(2).at(2).cell().isNull());
        QCOMPARE(records.at(3).size(), 1); // a blank line is one empty field
    }

    void csvErrors_data()
    {
        QTest::addColumn<QByteArray>("csv");
        QTest::addColumn<int>("line");
        QTest::addColumn<QString>("error");
        QTest::newRow("unclosed") << QByteArray("a\n\"b\nc") << 2 << "not closed";
        QTest::newRow("after quote") << QByteArray("a\n\"x\ny\"z\n") << 2 << "after the closing";
        QTest::newRow("quote inside") << QByteArray("a\nb\"c\n") << 2 << "inside an unquoted";
        QTest::newRow("too many fields")
            << QByteArray("x\n") + QByteArray(CsvReader::MaxFields + 1, ',') << 2 << "fields";
    }
    void csvErrors()
    {
        QFETCH(QByteArray, csv);
        QFETCH(int, line);
        QFETCH(QString, error);
        QString actual;
        int actualLine = 0;
        readAll(csv, &actual, &actualLine);
        QVERIFY2(actual.contains(error), qPrintable(actual));
        QCOMPARE(actualLine, line);
    }
};

QTEST_GUILESS_MAIN(TestCellText)
#include "tst_celltext.moc"
