// The texts that turn a failed GSSAPI or krb5 call into one log line.
#include "krbtest.h"

#include <zmkerberos.h>

#include <gssapi/gssapi_krb5.h>

#include <QtTest>

#include <dlfcn.h>

namespace {
// gss_display_status answers without a text on demand, the way it does for a
// code it cannot name: for every code, or only for the mechanism's codes.
bool g_displayStatusNull = false;
bool g_mechStatusNull = false;
} // namespace

extern "C" OM_uint32 KRB5_CALLCONV gss_display_status(OM_uint32 *minor, OM_uint32 code, int type, gss_OID mech,
                                                      OM_uint32 *context, gss_buffer_t text)
{
    using Fn = OM_uint32 (*)(OM_uint32 *, OM_uint32, int, gss_OID, OM_uint32 *, gss_buffer_t);
    static Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "gss_display_status"));
    if (g_displayStatusNull || (g_mechStatusNull && type == GSS_C_MECH_CODE)) {
        *minor = 0;
        text->length = 0;
        text->value = nullptr;
        return GSS_S_COMPLETE;
    }
    return next(minor, code, type, mech, context, text);
}

class KrbErrorTexts : public QObject {
    Q_OBJECT

private:
    const QByteArray missingCache = "FILE:/nonexistent/zmauth-error-texts-cache";

private slots:
    void initTestCase()
    {
        qputenv("KRB5CCNAME", missingCache);
        krbtest::resetThreadCache();
    }
    void init()
    {
        krbtest::resetAll();
        g_displayStatusNull = false;
        g_mechStatusNull = false;
    }

    // A real failed initiation: prefix, " failed:", then exactly two
    // tab-led lines, the major text and then the mechanism's own text.
    void initSecContextFailureHasTwoTabLines()
    {
        OM_uint32 minor = 0;
        gss_buffer_desc text = {14, const_cast<char *>("HTTP@localhost")};
        gss_name_t target = GSS_C_NO_NAME;
        QCOMPARE(gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &target), OM_uint32(GSS_S_COMPLETE));
        gss_ctx_id_t context = GSS_C_NO_CONTEXT;
        gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
        const OM_uint32 major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &context, target, gss_mech_krb5,
                                                     GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS,
                                                     GSS_C_NO_BUFFER, nullptr, &output, nullptr, nullptr);
        QVERIFY(GSS_ERROR(major));
        const QString message = gss_error_message("Init sec context", major, minor);
        gss_release_buffer(&minor, &output);
        gss_release_name(&minor, &target);

        QCOMPARE(message,
                 QStringLiteral("Init sec context failed:\n"
                                "\tNo credentials were supplied, or the credentials were unavailable or inaccessible\n"
                                "\tNo Kerberos credentials available (default cache: ")
                     + QString::fromLatin1(missingCache) + QStringLiteral(")"));
        const QStringList lines = message.split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines[0], QStringLiteral("Init sec context failed:"));
        QVERIFY(lines[1].startsWith(QLatin1Char('\t')));
        QVERIFY(lines[2].startsWith(QLatin1Char('\t')));
        QVERIFY(!message.endsWith(QLatin1Char('\n')));
    }

    void minorZeroStillGivesSecondLine()
    {
        QCOMPARE(gss_error_message("Import name", GSS_S_BAD_NAME, 0),
                 QStringLiteral("Import name failed:\n\tAn invalid name was supplied\n\tUnknown error"));
        QCOMPARE(gss_error_message("Accept sec context", GSS_S_DEFECTIVE_TOKEN, 0),
                 QStringLiteral("Accept sec context failed:\n\tInvalid token was supplied\n\tUnknown error"));
    }

    void emptyPrefixStartsWithFailed()
    {
        const QString message = gss_error_message("", GSS_S_NO_CRED, 0);
        QVERIFY2(message.startsWith(QStringLiteral(" failed:\n\t")), qPrintable(krbtest::visible(message)));
        QCOMPARE(message,
                 QStringLiteral(" failed:\n\tNo credentials were supplied, or the credentials were unavailable or "
                                "inaccessible\n\tUnknown error"));
    }

    void invalidMajorIsNamedByGssapi()
    {
        QCOMPARE(gss_error_message("X", 0xFFFFFFFFu, 0),
                 QStringLiteral("X failed:\n\tAn invalid status code was supplied\n\tUnknown error"));
    }

    // A minor code GSSAPI never handed out has no text: the message ends
    // right after the tab that was to lead it.
    void minorCodeWithoutTextEndsTheMessage()
    {
        const QString message = gss_error_message("Init sec context", GSS_S_FAILURE, 12345);
        QCOMPARE(message, QStringLiteral("Init sec context failed:\n\tUnspecified GSS failure.  Minor code may "
                                         "provide more information\n\t"));
    }

    // A null major text: nothing after it, not even the minor line.
    void nullMajorTextDropsEverythingAfter()
    {
        g_displayStatusNull = true;
        const QString message = gss_error_message("Accept sec context", GSS_S_FAILURE, 0);
        g_displayStatusNull = false;
        QCOMPARE(message, QStringLiteral("Accept sec context failed:\n\t"));
    }

    // A null minor text: the major line stays whole, the minor line ends
    // after its tab.
    void nullMinorTextEndsAfterItsTab()
    {
        g_mechStatusNull = true;
        const QString message = gss_error_message("Init sec context", GSS_S_NO_CRED, 0);
        g_mechStatusNull = false;
        QCOMPARE(message, QStringLiteral("Init sec context failed:\n\tNo credentials were supplied, or the "
                                         "credentials were unavailable or inaccessible\n\t"));
    }

    // The text is made afresh each time: a message that ended early leaves
    // nothing behind for the next one.
    void nextMessageAfterNullTextIsWhole()
    {
        g_displayStatusNull = true;
        QCOMPARE(gss_error_message("Import name", GSS_S_BAD_NAME, 0), QStringLiteral("Import name failed:\n\t"));
        g_displayStatusNull = false;
        QCOMPARE(gss_error_message("Import name", GSS_S_BAD_NAME, 0),
                 QStringLiteral("Import name failed:\n\tAn invalid name was supplied\n\tUnknown error"));
        krb5_context context = nullptr;
        krbtest::faults().errorMessageNull = true;
        QCOMPARE(krb_error_message("Kerberos store cred", context, KRB5_CC_IO), QStringLiteral("Kerberos store cred "));
        krbtest::faults().errorMessageNull = false;
        QCOMPARE(krb_error_message("Kerberos store cred", context, KRB5_CC_IO),
                 QStringLiteral("Kerberos store cred Credentials cache I/O operation failed"));
    }

    void prefixBytesAreUtf8()
    {
        const std::string prefix = "Вход";
        QCOMPARE(gss_error_message(prefix, GSS_S_BAD_NAME, 0),
                 QString::fromUtf8("Вход failed:\n\tAn invalid name was supplied\n\tUnknown error"));
        krb5_context context = nullptr;
        QCOMPARE(krb_error_message(prefix, context, KRB5_CC_IO),
                 QString::fromUtf8("Вход Credentials cache I/O operation failed"));
    }

    // krb5: the prefix, one blank and krb5's own message, on one line,
    // including the details the failing call left in the context.
    void krbMessageFromRealFailure()
    {
        krb5_context context = nullptr;
        QCOMPARE(krb5_init_context(&context), 0);
        krb5_ccache cache = nullptr;
        QCOMPARE(krb5_cc_resolve(context, "FILE:/nonexistent/zmauth-cache", &cache), 0);
        krb5_principal principal = nullptr;
        const krb5_error_code code = krb5_cc_get_principal(context, cache, &principal);
        QCOMPARE(code, krb5_error_code(KRB5_FCC_NOFILE));
        const QString message = krb_error_message("Kerberos new cache", context, code);
        krb5_cc_close(context, cache);
        krb5_free_context(context);
        QCOMPARE(message,
                 QStringLiteral("Kerberos new cache No credentials cache found (filename: /nonexistent/zmauth-cache)"));
        QVERIFY(!message.contains(QLatin1Char('\n')));
    }

    void krbMessageWithoutContext()
    {
        krb5_context context = nullptr;
        QCOMPARE(krb_error_message("Kerberos init context", context, KRB5_FCC_NOFILE),
                 QStringLiteral("Kerberos init context No credentials cache found"));
    }

    void krbEmptyPrefixStartsWithBlank()
    {
        krb5_context context = nullptr;
        krb5_init_context(&context);
        const QString message = krb_error_message("", context, KRB5_CC_NOMEM);
        krb5_free_context(context);
        QCOMPARE(message, QStringLiteral(" No more memory to allocate (in credentials cache code)"));
    }

    void krbCodeZeroIsSuccess()
    {
        krb5_context context = nullptr;
        krb5_init_context(&context);
        const QString message = krb_error_message("Kerberos get name", context, 0);
        krb5_free_context(context);
        QCOMPARE(message, QStringLiteral("Kerberos get name Success"));
    }

    // No message from krb5: the text stops after the prefix and its blank.
    void krbNullMessageEndsAfterPrefix()
    {
        krb5_context context = nullptr;
        krb5_init_context(&context);
        krbtest::faults().errorMessageNull = true;
        const QString message = krb_error_message("Kerberos store cred", context, KRB5_CC_IO);
        krbtest::faults().errorMessageNull = false;
        krb5_free_context(context);
        QCOMPARE(message, QStringLiteral("Kerberos store cred "));
    }
};

QTEST_GUILESS_MAIN(KrbErrorTexts)
#include "tst_krb_error_texts.moc"
