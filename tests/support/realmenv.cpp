#include "realmenv.h"

#include <QFile>

RealmEnv RealmEnv::fromDir(const QString &dir)
{
    RealmEnv e;
    e.m_dir = dir;
    if (dir.isEmpty())
        return e;
    QFile file(dir + QStringLiteral("/realm.env"));
    if (!file.open(QIODevice::ReadOnly))
        return e;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        const int eq = line.indexOf(QLatin1Char('='));
        if (line.startsWith(QLatin1Char('#')) || eq <= 0)
            continue;
        QString value = line.mid(eq + 1);
        // Values may be single-quoted for the shell.
        if (value.size() >= 2 && value.startsWith(QLatin1Char('\'')) && value.endsWith(QLatin1Char('\'')))
            value = value.mid(1, value.size() - 2);
        e.m_values.insert(line.left(eq), value);
    }
    return e;
}

const RealmEnv &RealmEnv::get()
{
    static const RealmEnv env = fromDir(qEnvironmentVariable("ZMAUTH_REALM_DIR"));
    return env;
}
