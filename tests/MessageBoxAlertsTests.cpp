#include "Platform/Linux/MessageBoxAlerts.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <gtest/gtest.h>

namespace {

// Answers the next modal message box by clicking the button with this title (empty: press Escape).
void answerNextBox(const QString& title, QString* seenText)
{
    QTimer::singleShot(50, [title, seenText] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        ASSERT_NE(box, nullptr) << "no alert is showing";
        *seenText = box->text() + "|" + box->informativeText();
        if (title.isEmpty())
            return box->reject();
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() == title)
                return button->click();
        }
        FAIL() << "no button " << title.toStdString();
    });
}

TEST(MessageBoxAlerts, AnswersTheIndexOfTheChosenButtonAndEscapeChoosesCancel)
{
    MessageBoxAlerts alerts;
    const Alerts::Alert alert{"Pergunta?", "Detalhes.",
                              {{"Apagar", Alerts::Button::Role::destructive}, {"Outro"}, {"Cancelar", Alerts::Button::Role::cancel}}};
    QString seen;
    answerNextBox("Outro", &seen);
    EXPECT_EQ(alerts.runModal(alert), 1);
    EXPECT_EQ(seen, "Pergunta?|Detalhes.");

    answerNextBox({}, &seen);
    EXPECT_EQ(alerts.runModal(alert), 2) << "Escape means the cancelling button";

    answerNextBox("OK", &seen);
    EXPECT_EQ(alerts.runModal({"Aviso", "Só um botão.", {}}), 0) << "no buttons means the platform's OK";
}

}
