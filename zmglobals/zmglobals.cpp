#include "zmglobals.h"

#include <QDebugStateSaver>

namespace zelmora {

ObjectInfo::ObjectInfo()
    : id(0), parentId(0)
{
}

ObjectInfo::ObjectInfo(const ObjectInfo &other) = default;

ObjectInfo &ObjectInfo::operator=(const ObjectInfo &other) = default;

} // namespace zelmora

QDebug operator<<(QDebug debug, const zelmora::ObjectInfo &info)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "ObjectInfo(" << info.type << ", " << info.params << ')';
    return debug;
}

// "1.0.0 (Jul 16 2026 12:46:52)": the version first, then when it was built.
QString binVersionDateTimeToMark(QString version, QString date, QString time)
{
    return QStringLiteral("%1 (%2 %3)").arg(version, date.simplified(), time);
}
