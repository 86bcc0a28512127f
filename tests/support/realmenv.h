#ifndef ZMAUTH_TEST_REALMENV_H
#define ZMAUTH_TEST_REALMENV_H

#include <QHash>
#include <QString>

// What the throwaway realm of this test run wrote to $ZMAUTH_REALM_DIR/realm.env
// (KEY=VALUE lines): ports, URIs, users and passwords, keytabs.
class RealmEnv {
public:
    // Empty when ZMAUTH_REALM_DIR is unset or the file cannot be read.
    static const RealmEnv &get();
    // The realm in dir (for programs that are given it, like the benchmarks).
    static RealmEnv fromDir(const QString &dir);

    bool isValid() const { return !m_values.isEmpty(); }
    QString value(const QString &key) const { return m_values.value(key); }
    QString dir() const { return m_dir; }
    QByteArray bytes(const QString &key) const { return m_values.value(key).toUtf8(); }
    std::string str(const QString &key) const { return m_values.value(key).toStdString(); }

private:
    QString m_dir;
    QHash<QString, QString> m_values;
};

#endif // ZMAUTH_TEST_REALMENV_H
