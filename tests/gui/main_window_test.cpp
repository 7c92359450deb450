// The window program on a real X server (xvfb-run): what its panes show
// against `kelvo --list`, menu enabling, and menu commands against the
// driver's own run of the same commands. Commands are reached through the
// menus and keys, as a user reaches them.
#include <gtest/gtest.h>

#include <QApplication>
#include <QFileDialog>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QScreen>
#include <QTableView>
#include <QTest>
#include <QTimer>
#include <QTreeView>
#include <clocale>
#include <cstdio>
#include <regex>
#include <sstream>

#include "core/app.h"
#include "core/items.h"
#include "core/settings.h"
#include "testsupport.h"
#include "ui/gui/collection_models.h"
#include "ui/gui/gui_app.h"
#include "ui/gui/main_window.h"
#include "ui/listing.h"

namespace kv::gui {
namespace {

namespace fs = std::filesystem;

std::string RunText(const std::string& command) {
  std::string out;
  if (std::FILE* p = popen(command.c_str(), "r")) {
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    pclose(p);
  }
  return out;
}

// "depth name" lines of the listing's instruments, layers, regions (and
// songs, tracks), or of its waveforms.
std::vector<std::string> ListingLines(const std::string& listing, bool waves) {
  static const std::regex kLine(R"re(^( *)(\w+) [0-9a-f]{8} "(.*?)"( |$))re");
  std::vector<std::string> out;
  std::istringstream in(listing);
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (!std::regex_search(line, m, kLine)) continue;
    const std::string type = m[2];
    if (type == "collection" || (type == "waveform") != waves) continue;
    out.push_back(std::to_string(m[1].length() / 2) + " " + m[3].str());
  }
  return out;
}

void TreeLines(const CollectionTreeModel& model, const QModelIndex& parent, int depth, std::vector<std::string>& out) {
  for (int row = 0; row < model.rowCount(parent); ++row) {
    const QModelIndex i = model.index(row, 0, parent);
    out.push_back(std::to_string(depth) + " " + model.data(i, Qt::EditRole).toString().toStdString());
    TreeLines(model, i, depth + 1, out);
  }
}

// A grab of the whole virtual screen for review, menus and boxes included.
void Shot(const char* name) {
  QApplication::processEvents();
  fs::create_directories(KELVO_SCREENSHOTS);
  QGuiApplication::primaryScreen()->grabWindow(0).save(
      QString::fromStdString((fs::path(KELVO_SCREENSHOTS) / (std::string(name) + ".png")).string()));
}

QMenu* MenuNamed(MainWindow& w, const char* name) {
  return w.menuBar()->findChild<QMenu*>(QString::fromLatin1(name));
}

// Opens a menu of the menu bar as a click does and returns its action whose
// text starts with `text`.
QAction* MenuAction(MainWindow& w, const char* menu, const QString& text) {
  QMenu* m = MenuNamed(w, menu);
  if (!m) return nullptr;
  m->popup(w.mapToGlobal(QPoint(10, 10)));
  QApplication::processEvents();
  for (QAction* a : m->actions())
    if (a->text().startsWith(text)) return a;
  return nullptr;
}

void Click(MainWindow& w, const char* menu, const QString& text) {
  QAction* a = MenuAction(w, menu, text);
  ASSERT_NE(a, nullptr) << text.toStdString();
  ASSERT_TRUE(a->isEnabled()) << text.toStdString();
  MenuNamed(w, menu)->hide();
  a->trigger();
  QApplication::processEvents();
}

// Answers the next file dialog with `path` (and a name filter starting with
// `filter`, if given) once it is up.
void AnswerFileDialog(const fs::path& path, const QString& filter = {}, const char* shot = nullptr) {
  QTimer::singleShot(200, [path, filter, shot] {
    auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
    if (!dialog) return;
    if (shot) Shot(shot);
    for (const QString& f : dialog->nameFilters())
      if (!filter.isEmpty() && f.startsWith(filter)) dialog->selectNameFilter(f);
    // The name field may have the keyboard, where selectFile leaves it be.
    if (auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit")))
      name->setText(QString::fromStdString(path.string()));
    else
      dialog->selectFile(QString::fromStdString(path.string()));
    static_cast<QDialog*>(dialog)->accept();
  });
}

// Closes every modal window that comes up in the next five seconds and
// returns their titles; the first is grabbed as `shot`.
std::shared_ptr<QStringList> DismissModals(const char* shot) {
  // One dismisser at a time: a new one ends the last.
  static QPointer<QTimer> last;
  if (last) last->deleteLater();
  auto titles = std::make_shared<QStringList>();
  auto* timer = new QTimer;
  last = timer;
  auto ticks = std::make_shared<int>(0);
  QObject::connect(timer, &QTimer::timeout, [timer, titles, ticks, shot] {
    if (QWidget* modal = QApplication::activeModalWidget()) {
      if (titles->isEmpty()) Shot(shot);
      titles->push_back(modal->windowTitle());
      if (auto* box = qobject_cast<QMessageBox*>(modal)) box->done(QMessageBox::Ok);
      else modal->close();
    }
    if (++*ticks > 50) timer->deleteLater();
  });
  timer->start(100);
  return titles;
}

class Gui : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELVO_SETTINGS", (dir_ / "settings.ini").c_str(), 1);
    LoadSettings();
    Settings().load.bConfirm = 0;
    MainCollection().Clear();
    window_ = std::make_unique<MainWindow>();
    InstallPresenters(*window_);
    window_->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window_.get()));
    // No window manager runs on the virtual server: take the keyboard ourselves.
    window_->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window_.get()));
  }
  void TearDown() override {
    RemovePresenters();
    window_.reset();
    MainCollection().Clear();
  }
  MainWindow& W() { return *window_; }

  test::TempDir dir_;
  std::unique_ptr<MainWindow> window_;
};

TEST_F(Gui, CommandLineBankShowsWhatTheListingShows) {
  if (!test::NeedCorpus()) return;
  const fs::path bank = test::CorpusDir() / "sf2/TimGM6mb.sf2";
  W().OpenArguments({bank});
  EXPECT_EQ(W().windowTitle(), QStringLiteral("TimGM6mb.sf2 - Kelvo Studio"));
  const std::string listing = RunText("'" KELVO_EXE "' -NOMSG '" + bank.string() + "' --list");
  std::vector<std::string> tree;
  TreeLines(W().TreeModel(), {}, 1, tree);
  EXPECT_EQ(tree, ListingLines(listing, false));
  std::vector<std::string> waves;
  for (int row = 0; row < W().WaveModel().rowCount(); ++row)
    waves.push_back("1 " + W().WaveModel().data(W().WaveModel().index(row, 0), Qt::EditRole).toString().toStdString());
  EXPECT_EQ(waves, ListingLines(listing, true));
  // Bank and program lead the instrument rows; the list shows the root by name.
  EXPECT_EQ(W().TreeModel().data(W().TreeModel().index(0, 0), Qt::DisplayRole).toString(), "0:000 Piano 1");
  EXPECT_EQ(W().WaveModel().headerData(4, Qt::Horizontal, Qt::DisplayRole).toString(), "Root");
  // The counts dialog's lines are the driver's.
  const std::vector<std::string> counts = ItemCountLines(MainCollection());
  ASSERT_EQ(counts.size(), 3u);
  EXPECT_TRUE(counts[0].starts_with("Instruments:\t")) << counts[0];
  EXPECT_NE(counts[0].find("layers, "), std::string::npos);
  EXPECT_EQ(counts[2], "Songs:\tnone");
}

TEST_F(Gui, MenusEnableAsTheSelectionAllows) {
  Shot("empty-window");
  // Empty: nothing to save, no layer to add to.
  QAction* save = MenuAction(W(), "File", "Save");
  ASSERT_NE(save, nullptr);
  EXPECT_EQ(save->text(), "Save...\tF4");
  EXPECT_FALSE(save->isEnabled());
  EXPECT_FALSE(MenuAction(W(), "File", "Save collection\t")->isEnabled());
  EXPECT_FALSE(MenuAction(W(), "Edit", "Add new layer")->isEnabled());
  EXPECT_TRUE(MenuAction(W(), "Edit", "Add new instrument")->isEnabled());
  MenuNamed(W(), "Edit")->hide();
  if (!test::NeedCorpus()) return;
  W().OpenArguments({test::CorpusDir() / "sf2/TimGM6mb.sf2"});
  // A region selected: the item word follows it.
  const QModelIndex inst = W().TreeModel().index(0, 0);
  const QModelIndex region = W().TreeModel().index(0, 0, W().TreeModel().index(0, 0, inst));
  ASSERT_TRUE(region.isValid());
  W().Tree().setCurrentIndex(region);
  EXPECT_EQ(MenuAction(W(), "File", "Save selected")->text(), "Save selected region as...\tF4");
  Shot("menu-file-region-selected");
  EXPECT_TRUE(MenuAction(W(), "File", "Save collection\t")->isEnabled());
  EXPECT_EQ(MenuAction(W(), "Edit", "Clone")->text(), "Clone selected region\ta-C");
  Shot("menu-edit");
  MenuNamed(W(), "Edit")->hide();
  MenuAction(W(), "Tools", "Autocreate");
  Shot("menu-tools");
  MenuNamed(W(), "Tools")->hide();
  MenuNamed(W(), "Edit")->hide();
  // An unbuilt subsystem answers by name.
  MessageBoxesEnabled = 0;
  Click(W(), "Tools", "Batch conversion wizard");
  MessageBoxesEnabled = 1;
}

TEST_F(Gui, MenuCommandsSaveWhatTheDriverSaves) {
  if (!test::NeedCorpus()) return;
  const fs::path wav = test::CorpusDir() / "wav/gen-s16-stereo.wav";
  W().OpenArguments({wav});
  Click(W(), "Tools", "Interleaved stereo -> Dual mono");
  EXPECT_EQ(W().StatusPart(0).toStdString().rfind("Done: Split 1 stereo waveform", 0), 0u) << W().StatusPart(0).toStdString();
  Click(W(), "Tools", "Autocreate instruments");
  const fs::path ours = dir_ / "menu.sf2", theirs = dir_ / "driver.sf2";
  AnswerFileDialog(ours, "SoundFont", "save-dialog");
  Click(W(), "File", "Save collection as...");
  ASSERT_TRUE(fs::exists(ours)) << W().StatusPart(0).toStdString();
  RunText("'" KELVO_EXE "' -NOMSG '" + wav.string() + "' --command 155 --command 115 --save '" + theirs.string() +
          "' 2>&1");
  EXPECT_EQ(test::ReadFile(ours), test::ReadFile(theirs));
  // Item count, and a box for a file that fails to load; the window goes on.
  auto counts = DismissModals("item-count");
  Click(W(), "View", "Item count...");
  EXPECT_EQ(*counts, QStringList{"Item count"});
  test::WriteFile(dir_ / "broken.sf2", std::string("RIFF\x10\0\0\0sfbkLIST", 16));
  auto errors = DismissModals("error-box");
  W().OpenArguments({dir_ / "broken.sf2", wav});
  EXPECT_EQ(*errors, QStringList{"sf2_Imp"});
  EXPECT_EQ(W().WaveModel().rowCount(), 1);
  // Clear all leaves an unnamed window.
  Click(W(), "File", "Clear all");
  EXPECT_EQ(W().windowTitle(), QStringLiteral("Unnamed  - Kelvo Studio"));
  EXPECT_EQ(W().WaveModel().rowCount(), 0);
}

TEST_F(Gui, KeysRenameAndStayOutOfTheEditor) {
  if (!test::NeedCorpus()) return;
  W().OpenArguments({test::CorpusDir() / "wav/gen-s16-stereo.wav"});
  W().Waves().setFocus();
  W().Waves().selectRow(0);
  QTest::keyClick(&W().Waves(), Qt::Key_F2);
  auto* editor = W().Waves().findChild<QLineEdit*>();
  ASSERT_NE(editor, nullptr);
  // F3 in the editor opens no dialog.
  QTimer::singleShot(300, [] {
    if (QWidget* modal = QApplication::activeModalWidget()) {
      ADD_FAILURE() << "a dialog opened: " << modal->windowTitle().toStdString();
      modal->close();
    }
  });
  QTest::keyClick(editor, Qt::Key_F3);
  QTest::qWait(400);
  ASSERT_EQ(W().Waves().findChild<QLineEdit*>(), editor);
  editor->setText(QStringLiteral("Renamed wave"));
  QTest::keyClick(editor, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(MainCollection().All<Waveform>().front()->Name(), "Renamed wave");
}

TEST(ProgramArguments, FilesAndSwitchesAsBothProgramsScanThem) {
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> files;
    bool noMessages, batch;
  };
  const Case cases[] = {
      {{"kelvo-studio", "a.wav", "b.wav"}, {"a.wav", "b.wav"}, false, false},
      {{"/usr/bin/kelvo-studio", "/tmp/x.wav"}, {"/tmp/x.wav"}, false, false},
      {{"kelvo-studio", "setup.exe", "song.exe.mid", "c.sf2"}, {"c.sf2"}, false, false},
      {{"kelvo-studio", "/nomsg", "-BATCH"}, {}, true, true},
      {{"kelvo-studio", "-BATCH", "-NOMSG"}, {}, false, true},
      {{"kelvo-studio", "--", "-odd.wav"}, {"-odd.wav"}, false, false},
  };
  for (const Case& c : cases) {
    const ProgramArguments a = ScanProgramArguments(c.args);
    std::vector<std::string> files;
    for (const fs::path& f : a.files) files.push_back(f.string());
    EXPECT_EQ(files, c.files) << c.args.back();
    EXPECT_EQ(a.noMessages, c.noMessages) << c.args.back();
    EXPECT_EQ(a.batch, c.batch) << c.args.back();
  }
}

}  // namespace
}  // namespace kv::gui

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  QApplication app(argc, argv);
  std::setlocale(LC_NUMERIC, "C");
  return RUN_ALL_TESTS();
}
