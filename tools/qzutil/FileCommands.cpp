// qzutil copy | delete | run | plist: the file and process utilities.
#include "Command.h"

#include <QZApp/QZPropertyList.h>
#include <QZApp/utils.h>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace qzutil {
namespace {

QString systemError(int code)
{
    return QString::fromLocal8Bit(std::strerror(code));
}

int copy(const QStringList &arguments)
{
    copy_file_options options {};
    QStringList paths;
    for (qsizetype i = 0; i < arguments.size(); i++) {
        const QString &word = arguments[i];
        if (word == QLatin1String("--recursive")) {
            options.flags |= COPY_FILE_RECURSIVE;
        } else if (word == QLatin1String("--keep-going")) {
            options.flags |= COPY_FILE_KEEP_GOING;
        } else if (word == QLatin1String("--owner") || word == QLatin1String("--group")) {
            const std::optional<quint64> id = i + 1 < arguments.size() ? parseUnsigned(arguments[i + 1]) : std::nullopt;
            if (!id || *id > 0xFFFFFFFEu)
                return usage("copy");
            i++;
            if (word == QLatin1String("--owner")) {
                options.flags |= COPY_FILE_OWNER;
                options.owner = static_cast<uint32_t>(*id);
            } else {
                options.flags |= COPY_FILE_GROUP;
                options.group = static_cast<uint32_t>(*id);
            }
        } else if (word.startsWith(QLatin1String("--"))) {
            return usage("copy");
        } else {
            paths.append(word);
        }
    }
    if (paths.size() != 2)
        return usage("copy");
    if (!copy_file(QFile::encodeName(paths[0]).constData(), QFile::encodeName(paths[1]).constData(), &options))
        return fail(QStringLiteral("cannot copy %1 to %2: %3").arg(paths[0], paths[1], systemError(errno)));
    return Success;
}

int remove(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return usage("delete");
    if (delete_file_object(QFile::encodeName(arguments.front()).constData()) < 0)
        return fail(QStringLiteral("cannot delete %1: %2").arg(arguments.front(), systemError(errno)));
    return Success;
}

int run(const QStringList &arguments)
{
    if (arguments.isEmpty())
        return usage("run");
    std::vector<QByteArray> words;
    for (const QString &argument : arguments)
        words.push_back(QFile::encodeName(argument));
    std::vector<char *> argv;
    for (QByteArray &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::fflush(stdout);   // the tool writes to the same standard output
    const int status = run_toolx(argv.data());
    printLine(QString::number(status));
    if (status < 0)
        return fail(QStringLiteral("cannot run %1, or it was ended by a signal").arg(arguments.front()));
    return Success;
}

// JSON for a property-list value: data as Base64, dates in ISO 8601 (UTC). The value was read by
// QZ::propertyListFromFile, which reads nothing nested deeper than 512 levels, and so the
// recursion here goes no deeper.
QJsonValue jsonFrom(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it)
            object.insert(it.key(), jsonFrom(it.value()));
        return object;
    }
    case QMetaType::QVariantList: {
        QJsonArray array;
        for (const QVariant &element : value.toList())
            array.append(jsonFrom(element));
        return array;
    }
    case QMetaType::QByteArray:
        return QString::fromLatin1(value.toByteArray().toBase64());
    case QMetaType::QDateTime:
        return value.toDateTime().toUTC().toString(Qt::ISODateWithMs);
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::ULongLong:
        return static_cast<qint64>(value.toULongLong());
    case QMetaType::Double:
        return value.toDouble();
    default:
        return value.toString();
    }
}

int plist(const QStringList &arguments)
{
    if (arguments.size() != 1)
        return usage("plist");
    const QVariant list = QZ::propertyListFromFile(arguments.front());
    if (!list.isValid())
        return fail(QStringLiteral("%1: not a readable property list").arg(arguments.front()));
    const QJsonValue json = jsonFrom(list);
    if (json.isObject())
        writeOut(QJsonDocument(json.toObject()).toJson(QJsonDocument::Indented));
    else if (json.isArray())
        writeOut(QJsonDocument(json.toArray()).toJson(QJsonDocument::Indented));
    else   // a bare value: wrapped in an array for the document, then unwrapped
        writeOut(QJsonDocument(QJsonArray { json }).toJson(QJsonDocument::Compact).chopped(1).mid(1) + '\n');
    return Success;
}

QZUTIL_COMMAND("copy", "[--recursive] [--keep-going] [--owner UID] [--group GID] SOURCE DESTINATION",
               "copy a file or folder with all its metadata", copy);
QZUTIL_COMMAND("delete", "PATH", "delete a file or folder and everything beneath it", remove);
QZUTIL_COMMAND("run", "PROGRAM [ARG...]", "run a program (by path) and print its exit status", run);
QZUTIL_COMMAND("plist", "FILE", "print a property list (XML or binary) as JSON", plist);

} // namespace
} // namespace qzutil
