// How a listing finds where an attribute's values go: by the name's bytes as
// the server sends them. A name read in place is sized, not cut at a zero
// byte, so a mapped name with zero bytes must be found by all of them.
#include "records_p.h"

#include <QtTest>

using namespace zmldap::detail;

class TestAttributeTargets : public QObject {
    Q_OBJECT

private slots:
    void nameWithZeroBytesFindsItsMapping()
    {
        const QHash<QString, QString> mapping{{QString::fromUtf8("cn\0x", 4), QStringLiteral("PT_NAME")},
                                              {QStringLiteral("cn"), QStringLiteral("PT_LOGIN")}};
        AttributeTargets targets(mapping);
        QCOMPARE(targets.find("cn\0x", 4).key, QStringLiteral("PT_NAME"));
        QCOMPARE(targets.find("cn", 2).key, QStringLiteral("PT_LOGIN"));
        // Not in the mapping: the empty key.
        QCOMPARE(targets.find("cn\0y", 4).key, QString());
        QVERIFY(targets.find("cn\0y", 4).key.isEmpty());
    }

    void valuesOfSuchANameLandUnderItsField()
    {
        const QHash<QString, QString> mapping{{QString::fromUtf8("\0\1\0", 3), QStringLiteral("PT_SURNAME PT_NAME")}};
        AttributeTargets targets(mapping);
        char value[] = "Smith John Paul";
        berval values[] = {{ber_len_t(sizeof value - 1), value}};
        QHash<QString, QString> params;
        storeAttribute(params, targets.find("\0\1\0", 3), ValueList(values, 1));
        const QHash<QString, QString> expected{{QStringLiteral("PT_SURNAME"), QStringLiteral("Smith")},
                                               {QStringLiteral("PT_NAME"), QStringLiteral("John Paul")}};
        QCOMPARE(params, expected);
    }
};

QTEST_GUILESS_MAIN(TestAttributeTargets)
#include "tst_ldap_attribute_targets.moc"
