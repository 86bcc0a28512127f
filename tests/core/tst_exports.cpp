// The built library exports exactly the system's interface: every function
// and class that programs built against it call, and nothing private.
#include <QFile>
#include <QtTest>

#include <cxxabi.h>
#include <elf.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

QString demangle(const char *name)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> out(abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return QString::fromUtf8(status == 0 && out ? out.get() : name);
}

// Defined symbols of default visibility in the dynamic symbol table.
QStringList exportedSymbols(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return {};
    }
    const QByteArray image = file.readAll();
    const char *base = image.constData();
    auto inside = [&](quint64 offset, quint64 size) { return offset <= quint64(image.size()) && size <= quint64(image.size()) - offset; };
    if (!inside(0, sizeof(Elf64_Ehdr)) || std::memcmp(base, ELFMAG, SELFMAG) != 0 || base[EI_CLASS] != ELFCLASS64) {
        *error = QStringLiteral("not a 64-bit ELF file");
        return {};
    }
    const auto *eh = reinterpret_cast<const Elf64_Ehdr *>(base);
    if (!inside(eh->e_shoff, quint64(eh->e_shnum) * sizeof(Elf64_Shdr))) {
        *error = QStringLiteral("section table outside the file");
        return {};
    }
    const auto *sections = reinterpret_cast<const Elf64_Shdr *>(base + eh->e_shoff);
    QStringList out;
    for (int i = 0; i < eh->e_shnum; ++i) {
        const Elf64_Shdr &sh = sections[i];
        if (sh.sh_type != SHT_DYNSYM || sh.sh_link >= eh->e_shnum)
            continue;
        const Elf64_Shdr &strtab = sections[sh.sh_link];
        if (!inside(sh.sh_offset, sh.sh_size) || !inside(strtab.sh_offset, strtab.sh_size)) {
            *error = QStringLiteral("symbol table outside the file");
            return {};
        }
        const auto *syms = reinterpret_cast<const Elf64_Sym *>(base + sh.sh_offset);
        const quint64 count = sh.sh_size / sizeof(Elf64_Sym);
        for (quint64 n = 1; n < count; ++n) {
            const Elf64_Sym &s = syms[n];
            const int bind = ELF64_ST_BIND(s.st_info);
            if (s.st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)
                || ELF64_ST_VISIBILITY(s.st_other) != STV_DEFAULT || s.st_name >= strtab.sh_size)
                continue;
            const char *name = base + strtab.sh_offset + s.st_name;
            if (!std::memchr(name, 0, strtab.sh_size - s.st_name))
                continue;
            out.append(demangle(name));
        }
    }
    return out;
}

QStringList expectedSymbols()
{
    QFile file(QStringLiteral(ZMAUTH_EXPECTED_EXPORTS));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QStringList out;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (!line.isEmpty() && !line.startsWith(QLatin1Char('#')))
            out.append(line);
    }
    return out;
}

} // namespace

class TestExports : public QObject {
    Q_OBJECT
private slots:
    void libraryExportsExactlyTheInterface();
    void privateClassesStayHidden();
};

void TestExports::libraryExportsExactlyTheInterface()
{
    QString error;
    QStringList actual = exportedSymbols(QStringLiteral(ZMAUTH_LIBRARY_FILE), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QStringList expected = expectedSymbols();
    QVERIFY(!expected.isEmpty());
    actual.sort();
    expected.sort();
    // Constructors and destructors appear once per ABI variant, so compare
    // as lists with repetitions, not as sets.
    QStringList missing = expected;
    QStringList extra;
    for (const QString &s : actual) {
        if (!missing.removeOne(s))
            extra.append(s);
    }
    QVERIFY2(missing.isEmpty(), qPrintable(QStringLiteral("missing: ") + missing.join(QStringLiteral("\n  "))));
    QVERIFY2(extra.isEmpty(), qPrintable(QStringLiteral("not part of the interface: ") + extra.join(QStringLiteral("\n  "))));
}

void TestExports::privateClassesStayHidden()
{
    QString error;
    const QStringList actual = exportedSymbols(QStringLiteral(ZMAUTH_LIBRARY_FILE), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(!actual.isEmpty());
    for (const QString &s : actual) {
        QVERIFY2(!s.contains(QStringLiteral("Private")), qPrintable(s));
        QVERIFY2(!s.contains(QStringLiteral("zm_sasl_interact")), qPrintable(s));
        QVERIFY2(!s.contains(QStringLiteral("stringToAttribute")), qPrintable(s));
        QVERIFY2(!s.contains(QStringLiteral("prepare_cred")), qPrintable(s));
        QVERIFY2(!s.startsWith(QStringLiteral("QHash")) && !s.startsWith(QStringLiteral("QList")), qPrintable(s));
        QVERIFY2(!s.contains(QStringLiteral("ObjectInfo::~")), qPrintable(s));
    }
}

QTEST_GUILESS_MAIN(TestExports)
#include "tst_exports.moc"
