#include "AppcastRelease.h"

#include <QXmlStreamReader>

#include <optional>

namespace {

// Some feeds and tags write "v1.0"; the texts shown put their own "v" before the number.
QString withoutLeadingV(QString version)
{
    if (version.startsWith(QLatin1Char('v'), Qt::CaseInsensitive))
        version.remove(0, 1);
    return version;
}

const QString kSparkleNamespace = QStringLiteral("http://www.andymatuschak.org/xml-namespaces/sparkle");

// What one <item> says, gathered while it is read.
struct Item {
    QString shortVersion, buildVersion, enclosureShortVersion, enclosureBuildVersion;
    QUrl link, enclosure;

    QString version() const
    {
        for (const QString* candidate : {&shortVersion, &enclosureShortVersion, &buildVersion, &enclosureBuildVersion}) {
            if (!candidate->isEmpty())
                return withoutLeadingV(*candidate);
        }
        return {};
    }
};

bool isSparkle(const QXmlStreamReader& reader, QLatin1String name)
{
    return reader.namespaceUri() == kSparkleNamespace && reader.name() == name;
}

void readItemElement(QXmlStreamReader& reader, Item& item)
{
    if (reader.namespaceUri().isEmpty() && reader.name() == QLatin1String("link")) {
        item.link = QUrl(reader.readElementText().trimmed());
    } else if (reader.name() == QLatin1String("enclosure")) {
        const QXmlStreamAttributes attributes = reader.attributes();
        item.enclosure = QUrl(attributes.value(QLatin1String("url")).toString().trimmed());
        item.enclosureShortVersion = attributes.value(kSparkleNamespace, QLatin1String("shortVersionString")).toString().trimmed();
        item.enclosureBuildVersion = attributes.value(kSparkleNamespace, QLatin1String("version")).toString().trimmed();
    } else if (isSparkle(reader, QLatin1String("shortVersionString"))) {
        item.shortVersion = reader.readElementText().trimmed();
    } else if (isSparkle(reader, QLatin1String("version"))) {
        item.buildVersion = reader.readElementText().trimmed();
    }
}

}

std::variant<AppcastRelease, QString> AppcastRelease::parse(const QByteArray& feed)
{
    if (feed.trimmed().isEmpty())
        return QStringLiteral("o feed de atualizações veio vazio");

    QXmlStreamReader reader(feed);
    std::optional<AppcastRelease> newest;
    std::optional<Item> item;
    QUrl channelLink;
    bool sawRoot = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement()) {
            if (!sawRoot && reader.name() != QLatin1String("rss"))
                return QStringLiteral("o endereço não contém um feed de atualizações (RSS), e sim <") + reader.name().toString()
                    + QLatin1Char('>');
            sawRoot = true;
            if (reader.name() == QLatin1String("item"))
                item.emplace();
            else if (item)
                readItemElement(reader, *item);
            else if (reader.name() == QLatin1String("link"))
                channelLink = QUrl(reader.readElementText().trimmed());
        } else if (reader.isEndElement() && reader.name() == QLatin1String("item") && item) {
            const QString version = item->version();
            if (!version.isEmpty() && (!newest || compareVersions(version, newest->version) > 0))
                newest = AppcastRelease{version, item->link.isEmpty() ? item->enclosure : item->link};
            item.reset();
        }
    }
    if (reader.hasError())
        return QStringLiteral("o feed de atualizações está incompleto ou malformado (linha %1)").arg(reader.lineNumber());
    if (!newest)
        return QStringLiteral("o feed de atualizações não informa nenhuma versão");
    if (newest->downloadPage.isEmpty())
        newest->downloadPage = channelLink;
    return *newest;
}

namespace {

QList<int> versionNumbers(const QString& version)
{
    QList<int> numbers;
    for (const QString& part :
        withoutLeadingV(version.trimmed()).section(QLatin1Char('-'), 0, 0).section(QLatin1Char('+'), 0, 0).split(QLatin1Char('.'))) {
        bool ok = false;
        const int number = part.toInt(&ok);
        if (!ok)
            break;
        numbers.append(number);
    }
    return numbers;
}

}

int compareVersions(const QString& left, const QString& right)
{
    const QList<int> a = versionNumbers(left);
    const QList<int> b = versionNumbers(right);
    for (qsizetype i = 0; i < qMax(a.size(), b.size()); ++i) {
        if (a.value(i) != b.value(i))
            return a.value(i) < b.value(i) ? -1 : 1;
    }
    return 0;
}
