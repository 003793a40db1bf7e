#pragma once

// Qt's own texts (the file dialogs, the overwrite question, the text fields' context menus, the
// standard buttons) in Brazilian Portuguese, like the rest of the program: Qt's translations for
// pt_BR, from the system's Qt translations folder, installed in the running application. Answers
// whether they were found; without them those texts stay in English and the log says why.
bool installQtTranslations();
