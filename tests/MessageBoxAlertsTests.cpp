#include "Platform/Linux/Desktop/MessageBoxAlerts.h"

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QTextDocument>
#include <QTimer>

#include <gtest/gtest.h>

namespace {

// What a label shows: rich text goes through a document of its own, which drops the markup.
QString displayed(const QLabel& label)
{
    const auto* document = label.findChild<QTextDocument*>();
    return document ? document->toPlainText() : label.text();
}

// A failure that quotes a server's error page shows it whole, in the title and in the details.
TEST(MessageBoxAlertsTest, TextsQuotingMarkupAreShownAsWritten)
{
    const QString quoted = "O servidor respondeu: <html><body><b>Erro</b> interno</body></html>";
    QStringList shown;
    QTimer user;
    QObject::connect(&user, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box)
            return;
        for (const QLabel* label : box->findChildren<QLabel*>()) {
            if (!label->text().isEmpty())
                shown.append(displayed(*label));
        }
        box->buttons().first()->click();
    });
    user.start(50);
    MessageBoxAlerts alerts;
    EXPECT_EQ(alerts.runModal({quoted, "Detalhes: " + quoted, {}}), 0);
    EXPECT_EQ(shown.join('\n').toStdString(), (quoted + "\nDetalhes: " + quoted).toStdString());
}

}
