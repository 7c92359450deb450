// The main window: collection tree, waveform list, property pane and status
// bar, with menus built as they open. Every action is a command number that
// runs through the same command layer as `kelvo`.
#pragma once

#include <QMainWindow>
#include <filesystem>
#include <vector>

#include "core/items.h"

class QLabel;
class QListView;
class QMenu;
class QPlainTextEdit;
class QSplitter;
class QTableView;
class QTreeView;

namespace kv::gui {

class CollectionTreeModel;
class WaveformListModel;

// The pane that holds the focus, as the item commands see it.
enum class FocusPane : int { Tree = 1, Waves = 2, Player = 3 };

class MainWindow final : public QMainWindow {
  Q_OBJECT
 public:
  MainWindow();
  ~MainWindow() override;

  // Opens the files of the command line: the first success replaces, the
  // rest merge, a failure shows its box and the list goes on.
  void OpenArguments(const std::vector<std::filesystem::path>& files);
  // Runs one command by its number; unknown or unbuilt ones say so.
  void RunCommand(int number);

  CollectionTreeModel& TreeModel() { return *treeModel_; }
  WaveformListModel& WaveModel() { return *waveModel_; }
  QTreeView& Tree() { return *tree_; }
  QTableView& Waves() { return *waves_; }
  QString StatusPart(int part) const;
  // The items the focus pane has selected, tree order first.
  std::vector<ItemId> SelectedIds() const;
  Item* CurrentItem() const;
  // Saves the window's geometry, split, columns and sort mode to the settings.
  void StoreLayout();

 protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void BuildMenus();
  void FillMenu(QMenu* menu, int group);
  void BuildPanes();
  void ApplyStoredLayout();
  void Refresh();
  void ShowItem(ItemId id);
  void UpdateProperties();
  void SetTitleFromCollection();
  void OpenWithDialog(int number);
  void SaveSelected();
  void SaveAllDialog();
  void ItemCountDialog();
  void DeleteSelected();
  void OpenRecent(int index);
  void OpenDropped(const std::vector<std::filesystem::path>& paths);
  QString TypeWord() const;

  CollectionTreeModel* treeModel_ = nullptr;
  WaveformListModel* waveModel_ = nullptr;
  QTreeView* tree_ = nullptr;
  QTableView* waves_ = nullptr;
  QPlainTextEdit* properties_ = nullptr;
  QSplitter* split_ = nullptr;
  QSplitter* vertical_ = nullptr;
  QLabel* status_[2] = {};
  FocusPane focus_ = FocusPane::Tree;
};

}  // namespace kv::gui
