#include "protocol/messagereader.h"
#include "sockethelpers.h"

#include <QtTest>

class TestMessageReader : public QObject
{
    Q_OBJECT

private slots:
    void numbersAreBigEndian()
    {
        MessageReader reader(hex("f0 80000001"));
        QCOMPARE(reader.readByte(), quint8{0xf0});
        QCOMPARE(reader.readWord(), quint32{0x80000001});
        QVERIFY(reader.isComplete());
    }

    void bytesAreReadInTurn()
    {
        MessageReader reader(hex("010203"));
        QCOMPARE(reader.readBytes(1), hex("01"));
        QCOMPARE(reader.readBytes(2), hex("0203"));
    }

    void skippedBytesAreNotRead()
    {
        MessageReader reader(hex("010203"));
        reader.skip(2);
        QCOMPARE(reader.readByte(), quint8{3});
    }

    void nothingAtAllIsAtItsEnd()
    {
        const MessageReader reader{QByteArray()};
        QVERIFY(reader.atEnd());
        QVERIFY(reader.isComplete());
    }

    void theLastByteCanBeRead()
    {
        MessageReader reader(hex("01"));
        QVERIFY(!reader.atEnd());
        reader.readByte();
        QVERIFY(reader.atEnd());
        QVERIFY(reader.isComplete());
    }

    void aWordCutShortIsIncomplete_data()
    {
        QTest::addColumn<int>("size");
        for (int size = 0; size < 4; ++size)
            QTest::addRow("%d bytes", size) << size;
    }

    void aWordCutShortIsIncomplete()
    {
        QFETCH(int, size);
        MessageReader reader(hex("ffffffff").left(size));
        QCOMPARE(reader.readWord(), quint32{0});
        QVERIFY(!reader.isComplete());
    }

    void exactlyTheBytesThatAreThereCanBeRead()
    {
        MessageReader reader(hex("0102"));
        QCOMPARE(reader.readBytes(2), hex("0102"));
        QVERIFY(reader.isComplete());
    }

    void oneByteMoreIsIncomplete()
    {
        MessageReader reader(hex("0102"));
        QCOMPARE(reader.readBytes(3), QByteArray());
        QVERIFY(!reader.isComplete());
    }

    void theLargestLengthTakesNoMemory()
    {
        const qint64 before = peakMemory();
        MessageReader reader(hex("01020304"));
        QCOMPARE(reader.readBytes(0xffffffff), QByteArray());
        QVERIFY(!reader.isComplete());
        QVERIFY(peakMemory() - before < unremarkableMemory);
    }

    void noBytesAreNeverIncomplete()
    {
        MessageReader reader{QByteArray()};
        QCOMPARE(reader.readBytes(0), QByteArray());
        QVERIFY(reader.isComplete());
    }

    /// Otherwise the reader would take the bytes that follow for something else.
    void whatIsIncompleteStaysSo()
    {
        MessageReader reader(hex("0102"));
        reader.skip(3);
        QCOMPARE(reader.readByte(), quint8{0});
        QCOMPARE(reader.readBytes(1), QByteArray());
        QVERIFY(!reader.isComplete());
    }
};

QTEST_APPLESS_MAIN(TestMessageReader)
#include "tst_messagereader.moc"
