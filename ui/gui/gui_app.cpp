#include "ui/gui/gui_app.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStatusBar>

#include "core/app.h"
#include "core/text.h"
#include "ui/gui/main_window.h"

namespace kv::gui {

namespace {

MainWindow* g_window = nullptr;

int ShowBox(const std::string& text, const std::string& title, BoxButtons buttons) {
  QMessageBox box(QMessageBox::Warning, QString::fromStdString(title), QString::fromStdString(text), QMessageBox::NoButton,
                  g_window);
  box.setObjectName(QStringLiteral("messageBox"));
  switch (buttons) {
    case BoxButtons::Ok: {
      box.addButton(QMessageBox::Ok);
      box.exec();
      return kBoxOk;
    }
    case BoxButtons::YesNo: {
      box.addButton(QMessageBox::Yes);
      box.addButton(QMessageBox::No);
      return box.exec() == QMessageBox::Yes ? kBoxYes : kBoxNo;
    }
    case BoxButtons::ThreeWay: {
      // The open questions name their answers; others are Yes, No, Cancel.
      const bool opening = title == "Opening recent file" || title == "Dropped files";
      QPushButton* first = box.addButton(opening ? QStringLiteral("&Replace current") : QStringLiteral("&Yes"),
                                         QMessageBox::YesRole);
      QPushButton* second = box.addButton(opening ? QStringLiteral("&Merge w current") : QStringLiteral("&No"),
                                          QMessageBox::NoRole);
      box.addButton(QStringLiteral("&Cancel"), QMessageBox::RejectRole);
      box.exec();
      if (box.clickedButton() == first) return kBoxYes;
      if (box.clickedButton() == second) return kBoxNo;
      return 2;
    }
    case BoxButtons::OkAlwaysCancelAlways: {
      QPushButton* ok = box.addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
      QPushButton* always = box.addButton(QStringLiteral("Allways OK"), QMessageBox::AcceptRole);
      QPushButton* cancel = box.addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
      box.addButton(QStringLiteral("Allways Cancel"), QMessageBox::RejectRole);
      box.exec();
      if (box.clickedButton() == ok) return 6;
      if (box.clickedButton() == always) return 1;
      if (box.clickedButton() == cancel) return 2;
      return 7;
    }
  }
  return kBoxOk;
}

std::filesystem::path AskFile(const std::string& title, const std::string& filter) {
  QFileDialog dialog(g_window, QString::fromStdString(title));
  dialog.setOption(QFileDialog::DontUseNativeDialog);
  dialog.setFileMode(QFileDialog::ExistingFile);
  if (!filter.empty()) dialog.setNameFilter(QString::fromStdString(filter));
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return {};
  return std::filesystem::path(dialog.selectedFiles().front().toStdString());
}

void ShowStatus(const std::string& text) {
  if (!g_window) return;
  if (auto* label = g_window->findChild<QLabel*>(QStringLiteral("status0")))
    label->setText(QString::fromStdString(text));
  // A blocking load still shows its progress, at most 30 times a second.
  static QElapsedTimer since;
  if (!since.isValid() || since.elapsed() >= 33) {
    since.restart();
    QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
  }
}

}  // namespace

void InstallPresenters(MainWindow& window) {
  g_window = &window;
  SetBoxPresenter(ShowBox);
  SetFilePresenter(AskFile);
  SetStatusSink(ShowStatus);
}

void RemovePresenters() {
  SetBoxPresenter(nullptr);
  SetFilePresenter(nullptr);
  SetStatusSink(nullptr);
  g_window = nullptr;
}

ProgramArguments ScanProgramArguments(std::span<const std::string> args) {
  ProgramArguments out;
  bool switches = true;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (switches && a == "--") {
      switches = false;
      continue;
    }
    const bool dash = switches && a.size() > 1 && a[0] == '-';
    const bool slashSwitch =
        switches && a.size() > 1 && a[0] == '/' && (EqualsNoCase(a.substr(1), "BATCH") || EqualsNoCase(a.substr(1), "NOMSG"));
    if (dash || slashSwitch) {
      const std::string_view name = std::string_view(a).substr(1);
      // The first scan stops at BATCH: a -NOMSG after it isn't seen.
      if (EqualsNoCase(name, "NOMSG") && !out.batch) out.noMessages = true;
      if (EqualsNoCase(name, "BATCH")) out.batch = true;
      continue;
    }
    if (a.find(".exe") != std::string::npos) continue;
    out.files.emplace_back(a);
  }
  return out;
}

}  // namespace kv::gui
