#include "ui/gui/main_window.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSplitter>
#include <QStatusBar>
#include <QTableView>
#include <QToolBar>
#include <QToolButton>
#include <QTreeView>
#include <QVBoxLayout>
#include <QCheckBox>
#include <QAbstractItemView>
#include <cstdio>
#include <sstream>

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/txt.h"
#include "formats/registry.h"
#include "ui/commands.h"
#include "ui/gui/collection_models.h"
#include "ui/listing.h"

namespace kv::gui {

namespace fs = std::filesystem;

namespace {

QString Q(std::string_view s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }
fs::path PathOf(const QString& s) {
  const QByteArray utf8 = s.toUtf8();
  return fs::path(std::string(utf8.constData(), static_cast<std::size_t>(utf8.size())));
}

// Menu entries: the text (a tab before the shortcut), the command, and when
// it is enabled.
enum class When { Always, Item, Instruments, WavesOrSongs, Waves, InstrumentsAndWaves, SongOrTrack, Synth, Never };

struct MenuEntry {
  const char* text;
  int command;
  When when;
};

constexpr int kSeparator = 0;
constexpr int kRecentMenu = -1;

// Commands with no subsystem in this build answer with their name.
constexpr int kUnbuilt[] = {9900, 100, 112, 113, 116, 117, 123, 125, 126, 127, 133, 141, 142, 143, 144, 145,
                            152, 158, 159, 160, 161, 162, 163, 164, 168, 180, 181, 29000};

const MenuEntry kFileMenu[] = {
    {"Open file...\tF3", 101, When::Always},
    {"Merge files...\ts-F3", 103, When::Always},
    {"Save selected %s as...\tF4", 102, When::Item},
    {"Save collection\ts-F4", 131, When::Instruments},
    {"Save collection as...", 132, When::Instruments},
    {"Save all in multiple files...\tc-F4", 104, When::WavesOrSongs},
    {nullptr, kSeparator, When::Always},
    {"Clear all", 128, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Recent files", kRecentMenu, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Exit\ta-X", 106, When::Always},
};
const MenuEntry kEditMenu[] = {
    {"Undo\tc-Z", 30064, When::Never},
    {"Redo\tc-Y", 30128, When::Never},
    {nullptr, kSeparator, When::Always},
    {"Cut\tc-X", 141, When::Item},
    {"Copy\tc-C", 142, When::Item},
    {"Paste\tc-V", 143, When::Always},
    {"Copy articulation", 144, When::Item},
    {"Paste articulation", 145, When::Item},
    {nullptr, kSeparator, When::Always},
    {"Add new instrument", 109, When::Always},
    {"Add new layer", 110, When::Instruments},
    {"Add new region", 111, When::InstrumentsAndWaves},
    {nullptr, kSeparator, When::Always},
    {"Edit %s name\tF2", 139, When::Item},
    {"Clone selected %s\ta-C", 130, When::Item},
    {"Delete selected %s", 140, When::Item},
    {nullptr, kSeparator, When::Always},
    {"Select all\tc-A", 148, When::Always},
    {"Deselect all\tc-D", 171, When::Always},
};
const MenuEntry kViewMenu[] = {
    {"Play MIDI\tF6", 113, When::SongOrTrack},
    {"Play audio\tF6", 113, When::Waves},
    {nullptr, kSeparator, When::Always},
    {"Item count...", 150, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Navigate back", 180, When::Always},
    {"Navigate forward", 181, When::Always},
};
const MenuEntry kToolsMenu[] = {
    {"Batch conversion wizard...\tc-B", 125, When::Always},
    {"Processing wizard...\tc-P", 29000, When::Always},
    {"Create instrument wizard...\tc-I", 126, When::Waves},
    {"Audio recording wizard...\tc-R", 127, When::Always},
    {"MIDI recording wizard...\tc-M", 158, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Autocreate instruments", 115, When::Waves},
    {"Dual mono -> Interleaved stereo", 154, When::Waves},
    {"Interleaved stereo -> Dual mono", 155, When::Waves},
    {"Convert Synthesis model to Waveform", 168, When::Synth},
    {"Convert from MIDI to Waveform", 167, When::SongOrTrack},
    {nullptr, kSeparator, When::Always},
    {"Delete unused waveforms", 138, When::InstrumentsAndWaves},
    {"Delete duplicate waveforms", 149, When::Waves},
    {"Replace waveforms...", 151, When::Waves},
};
const MenuEntry kIoMenu[] = {
    {"Read from Sampler CD", 162, When::Always},
    {"Read from Roland floppy", 159, When::Always},
    {nullptr, kSeparator, When::Always},
    {"MIDI SDS transmit", 116, When::Waves},
    {"MIDI SDS receive", 117, When::Always},
};
const MenuEntry kOptionsMenu[] = {
    {"Preferences...", 163, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Auditioning\tF7", 112, When::Always},
    {"Auto-audition waveforms", 119, When::Always},
    {"Auto-audition collection", 120, When::Always},
    {"Propagate down param edit delta\tF8", 129, When::Always},
    {"Auto-select waveforms\tF9", 156, When::Always},
    {"Auto-select collection items\ts-F9", 157, When::Always},
};
const MenuEntry kHelpMenu[] = {
    {"Help topics\tF1", 9900, When::Always},
    {nullptr, kSeparator, When::Always},
    {"Check for Updates", 161, When::Always},
};

struct MenuGroup {
  const char* title;
  const MenuEntry* entries;
  std::size_t count;
};
const MenuGroup kMenus[] = {
    {"&File", kFileMenu, std::size(kFileMenu)},       {"&Edit", kEditMenu, std::size(kEditMenu)},
    {"&View", kViewMenu, std::size(kViewMenu)},       {"&Tools", kToolsMenu, std::size(kToolsMenu)},
    {"&I/O", kIoMenu, std::size(kIoMenu)},            {"&Options", kOptionsMenu, std::size(kOptionsMenu)},
    {"&Help", kHelpMenu, std::size(kHelpMenu)},
};

// The keyboard table with its alternates.
struct KeyEntry {
  QKeySequence key;
  int command;
};
std::vector<KeyEntry> KeyTable() {
  return {
      {Qt::Key_F1, 9900},
      {Qt::Key_F3, 101},
      {Qt::SHIFT | Qt::Key_F3, 103},
      {Qt::Key_F4, 102},
      {Qt::SHIFT | Qt::Key_F4, 131},
      {Qt::CTRL | Qt::Key_F4, 104},
      {Qt::ALT | Qt::Key_F4, 106},
      {Qt::ALT | Qt::Key_X, 106},
      {Qt::Key_F6, 113},
      {Qt::Key_F7, 112},
      {Qt::Key_F8, 129},
      {Qt::Key_F9, 156},
      {Qt::SHIFT | Qt::Key_F9, 157},
      {Qt::CTRL | Qt::Key_B, 125},
      {Qt::CTRL | Qt::Key_C, 142},
      {Qt::CTRL | Qt::Key_Insert, 142},
      {Qt::CTRL | Qt::Key_D, 171},
      {Qt::CTRL | Qt::Key_E, 118},
      {Qt::CTRL | Qt::Key_I, 126},
      {Qt::CTRL | Qt::Key_K, 123},
      {Qt::CTRL | Qt::Key_M, 158},
      {Qt::CTRL | Qt::Key_P, 29000},
      {Qt::CTRL | Qt::Key_R, 127},
      {Qt::CTRL | Qt::Key_V, 143},
      {Qt::SHIFT | Qt::Key_Insert, 143},
      {Qt::CTRL | Qt::Key_X, 141},
      {Qt::SHIFT | Qt::Key_Delete, 141},
      {Qt::CTRL | Qt::Key_A, 148},
      {Qt::ALT | Qt::Key_C, 130},
      {Qt::Key_F2, 139},
  };
}

const char* CommandName(int number) {
  for (const MenuGroup& g : kMenus)
    for (std::size_t i = 0; i < g.count; ++i)
      if (g.entries[i].command == number && g.entries[i].text) return g.entries[i].text;
  return nullptr;
}

// A menu text without its shortcut and "%s", for messages.
QString PlainName(const char* text) {
  QString s = QString::fromLatin1(text);
  s = s.section(QLatin1Char('\t'), 0, 0);
  s.replace(QStringLiteral(" %s"), QString());
  return s;
}

const char* ItemTypeWord(ItemType t) {
  switch (t) {
    case ItemType::Collection: return "collection";
    case ItemType::Instrument: return "instrument";
    case ItemType::Layer: return "layer";
    case ItemType::Region: return "region";
    case ItemType::Waveform: return "waveform";
    case ItemType::Song: return "song";
    case ItemType::Track: return "track";
    default: return "item";
  }
}

}  // namespace

MainWindow::MainWindow() {
  setWindowTitle(QString::fromLatin1(kProgramTitle));
  setAcceptDrops(true);
  BuildPanes();
  BuildMenus();
  ApplyStoredLayout();
  Refresh();
}

MainWindow::~MainWindow() = default;

void MainWindow::BuildPanes() {
  Collection& c = MainCollection();
  treeModel_ = new CollectionTreeModel(c, this);
  waveModel_ = new WaveformListModel(c, this);
  treeModel_->SetSortMode(Settings().app.bDispBankPrgs ? 2 : 1);

  auto* left = new QWidget(this);
  auto* leftLayout = new QVBoxLayout(left);
  leftLayout->setContentsMargins(0, 0, 0, 0);
  leftLayout->setSpacing(0);
  auto* sortBar = new QWidget(left);
  auto* sortLayout = new QHBoxLayout(sortBar);
  sortLayout->setContentsMargins(0, 0, 0, 0);
  const char* const kSortTitles[] = {"Name", "Bank:Program", "Program"};
  for (int mode = 1; mode <= 3; ++mode) {
    auto* b = new QToolButton(sortBar);
    b->setText(QString::fromLatin1(kSortTitles[mode - 1]));
    b->setObjectName(QStringLiteral("sort%1").arg(mode));
    connect(b, &QToolButton::clicked, this, [this, mode] {
      StatusText("Sorting instruments...");
      treeModel_->SetSortMode(mode);
      StatusText("Done: Sorted items!");
    });
    sortLayout->addWidget(b);
  }
  sortLayout->addStretch(1);
  tree_ = new QTreeView(left);
  tree_->setObjectName(QStringLiteral("collectionTree"));
  tree_->setModel(treeModel_);
  tree_->setHeaderHidden(true);
  tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  tree_->setEditTriggers(QAbstractItemView::EditKeyPressed);
  leftLayout->addWidget(sortBar);
  leftLayout->addWidget(tree_);

  waves_ = new QTableView(this);
  waves_->setObjectName(QStringLiteral("waveformList"));
  waves_->setModel(waveModel_);
  waves_->setSelectionBehavior(QAbstractItemView::SelectRows);
  waves_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  waves_->setEditTriggers(QAbstractItemView::EditKeyPressed);
  waves_->verticalHeader()->hide();
  waves_->setShowGrid(false);
  waves_->setWordWrap(false);
  waves_->verticalHeader()->setDefaultSectionSize(waves_->fontMetrics().height() + 6);
  waves_->horizontalHeader()->setStretchLastSection(true);

  split_ = new QSplitter(Qt::Horizontal, this);
  split_->addWidget(left);
  split_->addWidget(waves_);
  properties_ = new QPlainTextEdit(this);
  properties_->setObjectName(QStringLiteral("properties"));
  properties_->setReadOnly(true);
  vertical_ = new QSplitter(Qt::Vertical, this);
  vertical_->addWidget(split_);
  vertical_->addWidget(properties_);
  vertical_->setStretchFactor(0, 3);
  vertical_->setStretchFactor(1, 1);
  setCentralWidget(vertical_);

  for (int part = 0; part < 2; ++part) {
    status_[part] = new QLabel(this);
    status_[part]->setObjectName(QStringLiteral("status%1").arg(part));
    statusBar()->addWidget(status_[part], part == 0 ? 3 : 1);
  }

  connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this] {
    focus_ = FocusPane::Tree;
    UpdateProperties();
  });
  connect(waves_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this] {
    focus_ = FocusPane::Waves;
    UpdateProperties();
  });
}

void MainWindow::BuildMenus() {
  // The toolbar groups carry the same commands as the menus.
  static const char* const kGroups[] = {" File", " Edit", " View", " Tools", " I/O", " Options", " Help"};
  auto* bar = addToolBar(QStringLiteral("Commands"));
  bar->setObjectName(QStringLiteral("toolbar"));
  int group = 0;
  for (const MenuGroup& g : kMenus) {
    QMenu* menu = menuBar()->addMenu(QString::fromLatin1(g.title));
    menu->setObjectName(QString::fromLatin1(g.title).remove(QLatin1Char('&')));
    connect(menu, &QMenu::aboutToShow, this, [this, menu, group] { FillMenu(menu, group); });
    auto* button = new QToolButton(bar);
    button->setText(QString::fromLatin1(kGroups[group]));
    button->setPopupMode(QToolButton::InstantPopup);
    auto* popup = new QMenu(button);
    connect(popup, &QMenu::aboutToShow, this, [this, popup, group] { FillMenu(popup, group); });
    button->setMenu(popup);
    bar->addWidget(button);
    ++group;
  }
  // Shortcuts live on the window, so that a rename editor that has the
  // keyboard gets its keys first.
  for (const KeyEntry& k : KeyTable()) {
    auto* action = new QAction(this);
    action->setShortcut(k.key);
    action->setShortcutContext(Qt::WindowShortcut);
    const int command = k.command;
    connect(action, &QAction::triggered, this, [this, command] {
      if (qobject_cast<QLineEdit*>(QApplication::focusWidget())) return;
      RunCommand(command);
    });
    addAction(action);
  }
}

QString MainWindow::TypeWord() const {
  const std::vector<ItemId> ids = SelectedIds();
  if (ids.empty()) return QStringLiteral("item");
  QString word = QString::fromLatin1(ItemTypeWord(TypeOf(ids.front())));
  if (ids.size() > 1) word += QLatin1Char('s');
  return word;
}

void MainWindow::FillMenu(QMenu* menu, int group) {
  menu->clear();
  const Collection& c = MainCollection();
  const bool instruments = c.Count(ItemType::Instrument) > 0, waves = c.Count(ItemType::Waveform) > 0,
             songs = c.Count(ItemType::Song) > 0;
  const Item* current = CurrentItem();
  const bool item = current && current->Type() != ItemType::Collection;
  const MenuGroup& g = kMenus[group];
  for (std::size_t i = 0; i < g.count; ++i) {
    const MenuEntry& e = g.entries[i];
    if (e.command == kSeparator) {
      menu->addSeparator();
      continue;
    }
    if (e.command == kRecentMenu) {
      QMenu* recent = menu->addMenu(QString::fromLatin1(e.text));
      const auto& files = Settings().app.LastFilesA;
      for (std::size_t n = 0; n < files.size() && n < 32; ++n) {
        QAction* a = recent->addAction(Q(files[n]));
        connect(a, &QAction::triggered, this, [this, n] { RunCommand(30000 + static_cast<int>(n)); });
      }
      recent->setEnabled(!files.empty());
      continue;
    }
    QString text = QString::fromLatin1(e.text);
    bool enabled = true;
    switch (e.when) {
      case When::Always: break;
      case When::Item: enabled = item; break;
      case When::Instruments: enabled = instruments; break;
      case When::WavesOrSongs: enabled = waves || songs; break;
      case When::Waves: enabled = waves; break;
      case When::InstrumentsAndWaves: enabled = instruments && waves; break;
      case When::SongOrTrack:
        enabled = current && (current->Type() == ItemType::Song || current->Type() == ItemType::Track);
        break;
      case When::Synth: enabled = current && current->NeedsSynthesis(); break;
      case When::Never: enabled = false; break;
    }
    if (e.command == 102 && !item) text = QStringLiteral("Save...\tF4");
    text.replace(QStringLiteral("%s"), TypeWord());
    QAction* a = menu->addAction(text);
    a->setEnabled(enabled);
    static const int kChecks[] = {112, 119, 120, 129, 156, 157};
    if (std::find(std::begin(kChecks), std::end(kChecks), e.command) != std::end(kChecks)) {
      const auto& s = Settings();
      const bool on = e.command == 112   ? s.aio.bEnable
                      : e.command == 119 ? s.aio.bPlayWaveOnClick
                      : e.command == 120 ? s.aio.bPlayCollOnClick
                      : e.command == 129 ? s.app.bPropagateDownDelta
                      : e.command == 156 ? s.app.bAutoSelWaveforms
                                         : s.app.bAutoSelCollItems;
      a->setCheckable(true);
      a->setChecked(on);
    }
    const int command = e.command;
    connect(a, &QAction::triggered, this, [this, command] { RunCommand(command); });
  }
}

void MainWindow::ApplyStoredLayout() {
  const auto& app = Settings().app;
  if (app.ptLastSize.present && app.ptLastSize.x > 100 && app.ptLastSize.y > 100)
    resize(app.ptLastSize.x, app.ptLastSize.y);
  else
    resize(1000, 700);
  if (app.ptLastPos.present && app.ptLastPos.x != 0x76543210 && QGuiApplication::platformName() != "wayland")
    move(app.ptLastPos.x, app.ptLastPos.y);
  if (app.iPaneSplitL > 0) split_->setSizes({app.iPaneSplitL, std::max(100, width() - app.iPaneSplitL)});
  for (int col = 0; col < 5; ++col)
    if (app.awColWidths[static_cast<std::size_t>(col)] > 0)
      waves_->setColumnWidth(col, app.awColWidths[static_cast<std::size_t>(col)]);
}

void MainWindow::StoreLayout() {
  auto& app = Settings().app;
  app.ptLastSize = {width(), height(), true};
  app.ptLastPos = {x(), y(), true};
  if (!split_->sizes().isEmpty()) app.iPaneSplitL = split_->sizes().front();
  for (int col = 0; col < 5; ++col)
    app.awColWidths[static_cast<std::size_t>(col)] = static_cast<uint16_t>(waves_->columnWidth(col));
}

QString MainWindow::StatusPart(int part) const {
  return part == 0 || part == 1 ? status_[part]->text() : QString();
}

std::vector<ItemId> MainWindow::SelectedIds() const {
  std::vector<ItemId> ids;
  if (focus_ == FocusPane::Waves) {
    for (const QModelIndex& i : waves_->selectionModel()->selectedRows()) ids.push_back(waveModel_->IdAt(i.row()));
    if (ids.empty() && waves_->currentIndex().isValid()) ids.push_back(waveModel_->IdAt(waves_->currentIndex().row()));
  } else {
    for (const QModelIndex& i : tree_->selectionModel()->selectedIndexes()) ids.push_back(treeModel_->IdAt(i));
    if (ids.empty() && tree_->currentIndex().isValid()) ids.push_back(treeModel_->IdAt(tree_->currentIndex()));
  }
  return ids;
}

Item* MainWindow::CurrentItem() const {
  Collection& c = MainCollection();
  if (focus_ == FocusPane::Waves && waves_->currentIndex().isValid())
    return c.Find(waveModel_->IdAt(waves_->currentIndex().row()));
  if (tree_->currentIndex().isValid()) return c.Find(treeModel_->IdAt(tree_->currentIndex()));
  return nullptr;
}

void MainWindow::UpdateProperties() {
  Item* item = CurrentItem();
  if (!item) {
    properties_->clear();
    return;
  }
  // The item as the text writer lists it, read-only until the panes exist.
  const std::string text = ParameterDescription(*item);
  properties_->setPlainText(Q(text));
}

void MainWindow::Refresh() {
  treeModel_->Reload();
  waveModel_->Reload();
  App().refresh = false;
  if (App().currentItem != kNoItem) ShowItem(App().currentItem);
  App().currentItem = kNoItem;
  UpdateProperties();
}

void MainWindow::ShowItem(ItemId id) {
  const QModelIndex t = treeModel_->IndexOf(id);
  if (t.isValid()) {
    tree_->setCurrentIndex(t);
    tree_->scrollTo(t);
    focus_ = FocusPane::Tree;
    return;
  }
  const int row = waveModel_->RowOf(id);
  if (row >= 0) {
    waves_->selectRow(row);
    waves_->scrollTo(waveModel_->index(row, 0));
    focus_ = FocusPane::Waves;
  }
}

void MainWindow::SetTitleFromCollection() {
  const Collection& c = MainCollection();
  if (c.sourcePath.empty())
    setWindowTitle(QStringLiteral("Unnamed  - Kelvo Studio"));
  else
    setWindowTitle(Q(c.sourcePath.filename().string()) + QStringLiteral(" - Kelvo Studio"));
}

void MainWindow::OpenArguments(const std::vector<fs::path>& files) {
  if (files.empty()) return;
  OpenFileList(files);
  SetTitleFromCollection();
  Refresh();
}

void MainWindow::OpenWithDialog(int number) {
  const char* title = number == 101   ? "Open new file - Kelvo Studio"
                      : number == 103 ? "Open files to merge with - Kelvo Studio"
                                      : "Select waves to replace current waves of the same name";
  const auto& recent = Settings().app.LastPathsA;
  const QString start = recent.empty() ? QString::fromLocal8Bit(qgetenv("HOME")) : Q(recent.front());
  QFileDialog dialog(this, QString::fromLatin1(title), start);
  dialog.setOption(QFileDialog::DontUseNativeDialog);
  dialog.setFileMode(QFileDialog::ExistingFiles);
  if (dialog.exec() != QDialog::Accepted) return;
  std::vector<fs::path> paths;
  for (const QString& f : dialog.selectedFiles()) paths.push_back(PathOf(f));
  if (paths.empty()) return;
  if (number == 101 && !ConfirmDiscard("Confirm loading file!", true)) return;
  const bool report = paths.size() == 1;
  int opened = 0, replaced = 0;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    OpenMode mode = number == 151 ? OpenMode::ReplaceWaves : (number == 101 && i == 0 ? OpenMode::Replace : OpenMode::Merge);
    if (number == 103) StatusText("%s", paths[i].filename().c_str());
    if (OpenFile(paths[i], mode, number == 151 ? false : report)) {
      ++opened;
      if (number == 151) replaced += TakeReplacedCount();
    } else {
      ShowErrorBox();
    }
  }
  if (number == 151) StatusText("Replaced %d waveform%s", replaced, replaced == 1 ? "" : "s");
  else if (paths.size() > 1) StatusText("Merged %d files", opened);
  if (number == 101) SetTitleFromCollection();
  App().refresh = true;
}

void MainWindow::SaveSelected() {
  const std::vector<ItemId> ids = SelectedIds();
  std::vector<ItemId> targets = ids.empty() ? std::vector<ItemId>{MainCollection().id} : ids;
  for (ItemId id : targets) {
    Item* item = MainCollection().Find(id);
    if (!item) continue;
    const uint8_t mask = SaveTypeMask(item);
    QStringList filters;
    std::vector<int> rows;
    const char* ext = nullptr;
    const char* name = nullptr;
    uint8_t flags = 0;
    uint32_t caps = 0;
    for (int row = 0; NextWriter(row, ext, name, flags, caps); ++row) {
      if (!(flags & mask)) continue;
      filters << QStringLiteral("%1 (*.%2)").arg(QString::fromLatin1(name), QString::fromLatin1(ext));
      rows.push_back(row);
    }
    QFileDialog dialog(this, QStringLiteral("Save %1 as").arg(QString::fromLatin1(ItemTypeWord(item->Type()))));
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setNameFilters(filters);
    dialog.setLabelText(QFileDialog::FileType, QStringLiteral("Formats"));
    dialog.selectFile(Q(item->Name()));
    // The sample coding and channels join the dialog's own grid.
    auto* dataFormat = new QComboBox(&dialog);
    dataFormat->setObjectName(QStringLiteral("dataFormat"));
    dataFormat->addItem(QStringLiteral("Auto"));
    for (int f = 0; f < kFormatNone; ++f)
      if (const char* n = DataFormatName(f); n && *n) dataFormat->addItem(QString::fromLatin1(n));
    auto* channels = new QComboBox(&dialog);
    channels->setObjectName(QStringLiteral("channelFormat"));
    channels->addItems({QStringLiteral("Auto"), QStringLiteral("Mono"), QStringLiteral("Stereo")});
    if (auto* grid = qobject_cast<QGridLayout*>(dialog.layout())) {
      const int at = grid->rowCount();
      grid->addWidget(new QLabel(QStringLiteral("Data format:"), &dialog), at, 0);
      grid->addWidget(dataFormat, at, 1);
      grid->addWidget(new QLabel(QStringLiteral("Channel format:"), &dialog), at + 1, 0);
      grid->addWidget(channels, at + 1, 1);
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return;
    const int filterIndex = static_cast<int>(filters.indexOf(dialog.selectedNameFilter()));
    SaveOptions options;
    if (filterIndex >= 0) options.format = std::to_string(rows[static_cast<std::size_t>(filterIndex)]);
    if (dataFormat->currentIndex() > 0) options.dataFormat = dataFormat->currentText().toStdString();
    options.channels = channels->currentText().toLower().toStdString();
    App().savingOrConverting = true;
    const bool ok = SaveCollectionOrItem(MainCollection(), item->Type() == ItemType::Collection ? nullptr : item,
                                         PathOf(dialog.selectedFiles().front()), options);
    App().savingOrConverting = false;
    if (!ok) ShowErrorBox();
  }
}

void MainWindow::SaveAllDialog() {
  QFileDialog dialog(this, QStringLiteral("Save all in multiple files"));
  dialog.setOption(QFileDialog::DontUseNativeDialog);
  dialog.setAcceptMode(QFileDialog::AcceptSave);
  auto* mode = new QComboBox(&dialog);
  mode->setObjectName(QStringLiteral("saveAllMode"));
  for (int m = 210; m <= 218; ++m) mode->addItem(QString::number(m));
  mode->setCurrentIndex(std::clamp(Settings().sall.iMode - 210, 0, 8));
  auto* subdirs = new QCheckBox(QStringLiteral("Save in sub-directories: 'foo/foo.bar'"), &dialog);
  subdirs->setChecked(Settings().sall.bSubDirs != 0);
  if (auto* grid = qobject_cast<QGridLayout*>(dialog.layout())) {
    const int at = grid->rowCount();
    grid->addWidget(new QLabel(QStringLiteral("Naming:"), &dialog), at, 0);
    grid->addWidget(mode, at, 1);
    grid->addWidget(subdirs, at + 1, 1);
  }
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return;
  Settings().sall.iMode = 210 + mode->currentIndex();
  Settings().sall.bSubDirs = subdirs->isChecked();
  int saved = 0;
  App().savingOrConverting = true;
  const bool ok = SaveAllItems(MainCollection(), PathOf(dialog.selectedFiles().front()), Settings().sall.iMode,
                               subdirs->isChecked(), OnExists::Skip, saved);
  App().savingOrConverting = false;
  if (!ok) ShowErrorBox();
}

void MainWindow::ItemCountDialog() {
  QStringList lines;
  for (const std::string& l : ItemCountLines(MainCollection())) lines << Q(l);
  QMessageBox box(QMessageBox::Information, QStringLiteral("Item count"), lines.join(QLatin1Char('\n')),
                  QMessageBox::Ok, this);
  box.setObjectName(QStringLiteral("itemCount"));
  box.exec();
}

void MainWindow::DeleteSelected() {
  const std::vector<ItemId> ids = SelectedIds();
  if (ids.empty()) return;
  // Without an undo store a delete asks first, where confirmations are on.
  if (Settings().load.bConfirm) {
    char text[160];
    std::snprintf(text, sizeof text, "Delete selected %s", TypeWord().toUtf8().constData());
    if (MessageBox(std::string(text) + "?", "Please confirm!", BoxButtons::YesNo) != kBoxYes) return;
  }
  Collection& c = MainCollection();
  for (ItemId id : ids)
    if (Item* item = c.Find(id); item && item->Type() != ItemType::Collection) DeleteItem(item);
  App().currentItem = c.id;
  App().refresh = true;
}

void MainWindow::OpenRecent(int index) {
  const auto& files = Settings().app.LastFilesA;
  if (index < 0 || index >= static_cast<int>(files.size())) return;
  const fs::path path = files[static_cast<std::size_t>(index)];
  const Collection& c = MainCollection();
  OpenMode mode = OpenMode::Replace;
  if (c.Count(ItemType::Waveform) || c.Count(ItemType::Song)) {
    const int answer = MessageBox("How would you like to open the file?", "Opening recent file", BoxButtons::ThreeWay);
    if (answer == kBoxYes) mode = OpenMode::Replace;
    else if (answer == kBoxNo) mode = OpenMode::Merge;
    else return;
  }
  App().busy = true;
  if (!OpenFile(path, mode, true)) ShowErrorBox();
  App().busy = false;
  if (mode == OpenMode::Replace) SetTitleFromCollection();
  App().refresh = true;
}

void MainWindow::OpenDropped(const std::vector<fs::path>& paths) {
  if (paths.empty()) return;
  const Collection& c = MainCollection();
  OpenMode mode = OpenMode::Replace;
  if (c.Count(ItemType::Waveform) || c.Count(ItemType::Song)) {
    const int answer = MessageBox("How would you like to open the file?", "Dropped files", BoxButtons::ThreeWay);
    if (answer == kBoxYes) mode = OpenMode::Replace;
    else if (answer == kBoxNo) mode = OpenMode::Merge;
    else return;
  }
  App().busy = true;
  for (const fs::path& p : paths) {
    if (!OpenFile(p, mode, true)) ShowErrorBox();
    else if (mode == OpenMode::Replace) SetTitleFromCollection();
    if (MainCollection().Count(ItemType::Waveform) || MainCollection().Count(ItemType::Song) ||
        MainCollection().Count(ItemType::Instrument))
      mode = OpenMode::Merge;
  }
  App().busy = false;
  App().refresh = true;
  Refresh();
}

void MainWindow::RunCommand(int number) {
  Collection& c = MainCollection();
  if (number >= 30000 && number <= 30031) {
    OpenRecent(number - 30000);
  } else if (std::find(std::begin(kUnbuilt), std::end(kUnbuilt), number) != std::end(kUnbuilt) ||
             (number >= 30064 && number <= 30191)) {
    const char* text = CommandName(number);
    const QString name = text ? PlainName(text) : QStringLiteral("This command");
    MessageBox((name + QStringLiteral(" is not available in this build.")).toStdString(), kProgramName);
  } else {
    switch (number) {
      case 101:
      case 103:
      case 151:
        OpenWithDialog(number);
        break;
      case 102:
        SaveSelected();
        break;
      case 104:
        SaveAllDialog();
        break;
      case 131:
        if (c.sourcePath.empty()) {
          SaveSelected();
        } else {
          App().savingOrConverting = true;
          if (!SaveCollectionOrItem(c, nullptr, c.sourcePath, SaveOptions{})) ShowErrorBox();
          App().savingOrConverting = false;
        }
        break;
      case 132:
        if (!c.Count(ItemType::Instrument)) {
          MessageBox("No instruments loaded", kProgramName);
          break;
        }
        tree_->clearSelection();
        tree_->setCurrentIndex({});
        SaveSelected();
        break;
      case 128:
        if (!RunCollectionCommand(128)) ShowErrorBox();
        if (c.sourcePath.empty() && !c.Count(ItemType::Waveform)) setWindowTitle(QStringLiteral("Unnamed  - Kelvo Studio"));
        App().refresh = true;
        break;
      case 106:
        close();
        break;
      case 109:
      case 110:
      case 111:
      case 115:
      case 138:
      case 149:
      case 154:
      case 155:
      case 185: {
        if (number == 110 || number == 111) {
          Item* current = CurrentItem();
          if (!current) break;
          Item* made = number == 110 ? static_cast<Item*>(AddNewLayer(*current)) : AddNewRegion(*current);
          if (made) App().currentItem = made->id;
          App().refresh = true;
          break;
        }
        if (!RunCollectionCommand(number)) ShowErrorBox();
        App().refresh = true;
        break;
      }
      case 130:
        for (ItemId id : SelectedIds())
          if (Item* item = c.Find(id); item && item->Type() != ItemType::Collection) {
            if (Item* copy = CloneSelected(*item)) App().currentItem = copy->id;
          }
        App().refresh = true;
        break;
      case 139: {
        QAbstractItemView* view = focus_ == FocusPane::Waves ? static_cast<QAbstractItemView*>(waves_) : tree_;
        QModelIndex at = view->currentIndex();
        if (focus_ == FocusPane::Waves) at = waveModel_->index(at.row(), 0);
        if (at.isValid()) view->edit(at);
        return;
      }
      case 140:
        DeleteSelected();
        break;
      case 148:
        (focus_ == FocusPane::Waves ? static_cast<QAbstractItemView*>(waves_) : tree_)->selectAll();
        return;
      case 171:
        tree_->clearSelection();
        waves_->clearSelection();
        return;
      case 150:
        ItemCountDialog();
        return;
      case 119:
        Settings().aio.bPlayWaveOnClick = !Settings().aio.bPlayWaveOnClick;
        return;
      case 120:
        Settings().aio.bPlayCollOnClick = !Settings().aio.bPlayCollOnClick;
        return;
      case 129:
        Settings().app.bPropagateDownDelta = !Settings().app.bPropagateDownDelta;
        return;
      case 156:
        Settings().app.bAutoSelWaveforms = !Settings().app.bAutoSelWaveforms;
        StatusText("Auto select waveforms: %s", Settings().app.bAutoSelWaveforms ? "On" : "Off");
        return;
      case 157:
        Settings().app.bAutoSelCollItems = !Settings().app.bAutoSelCollItems;
        StatusText("Auto select collection items: %s", Settings().app.bAutoSelCollItems ? "On" : "Off");
        return;
      case 167:
        if (!RunCollectionCommand(167)) ShowErrorBox();
        App().refresh = true;
        break;
      default:
        return;
    }
  }
  if (App().refresh || App().currentItem != kNoItem) Refresh();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (App().savingOrConverting) {
    event->ignore();
    return;
  }
  if (!ConfirmDiscard("Confirm closing app!", false)) {
    event->ignore();
    return;
  }
  StoreLayout();
  event->accept();
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (!event->mimeData()->hasUrls()) return;
  for (const QUrl& url : event->mimeData()->urls())
    if (!url.isLocalFile()) return;
  event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
  std::vector<fs::path> paths;
  for (const QUrl& url : event->mimeData()->urls())
    if (url.isLocalFile()) paths.push_back(PathOf(url.toLocalFile()));
  event->acceptProposedAction();
  OpenDropped(paths);
}

}  // namespace kv::gui
