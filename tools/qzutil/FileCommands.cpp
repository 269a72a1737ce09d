// qzutil run | plist: the tool runner and the property-list reader.
#include "Command.h"

#include <QZApp/QZPropertyList.h>
#include <QZApp/utils.h>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cstdio>
#include <vector>

namespace qzutil {
namespace {

int run(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    if (arguments.isEmpty())
        return usage("run");
    std::vector<QByteArray> words(invocation.operandBytes().begin(), invocation.operandBytes().end());
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

int plist(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
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

QZUTIL_COMMAND(.name = "run", .usage = "PROGRAM [ARG...]", .summary = "run a program (by path) and print its exit status",
               .run = run,
               .operands = { { "PROGRAM", "the program's path (not searched for along PATH); it runs with an\n"
                                          "empty environment" },
                             { "ARG", "its arguments, handed on unchanged whatever they start with" } });
QZUTIL_COMMAND(.name = "plist", .usage = "FILE", .summary = "print a property list (XML or binary) as JSON",
               .run = plist,
               .operands = { { "FILE", "the property list; data is printed as Base64, dates in ISO 8601 (UTC)" } });

} // namespace
} // namespace qzutil
