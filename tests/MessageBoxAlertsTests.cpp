#include "Platform/Linux/MessageBoxAlerts.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include <gtest/gtest.h>

namespace {

// Runs the alert and answers it as a user would, by clicking the button with this title (none:
// pressing Escape). Gives the index the alert answered and the texts it showed.
std::pair<int, QString> answer(const Alerts::Alert& alert, const QString& title)
{
    QString seen;
    QTimer::singleShot(50, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        ASSERT_NE(box, nullptr) << "no alert is showing";
        seen = box->text() + "|" + box->informativeText();
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() == title)
                return button->click();
        }
        box->reject();
    });
    const int chosen = MessageBoxAlerts().runModal(alert);
    return {chosen, seen};
}

TEST(MessageBoxAlerts, AnswersTheIndexOfTheChosenButtonAndEscapeChoosesCancel)
{
    const Alerts::Alert alert{"Pergunta?", "Detalhes.",
                              {{"Apagar", Alerts::Button::Role::destructive}, {"Outro"}, {"Cancelar", Alerts::Button::Role::cancel}}};
    EXPECT_EQ(answer(alert, "Outro"), std::pair(1, QString("Pergunta?|Detalhes.")));
    EXPECT_EQ(answer(alert, {}).first, 2) << "Escape means the cancelling button";
    EXPECT_EQ(answer({"Aviso", "Só um botão.", {}}, "OK").first, 0) << "no buttons means the platform's OK";
}

}
