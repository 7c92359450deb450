// Item models over the main collection for the window's two panes. They keep
// no copy of the collection: rows are item ids read on demand, so a bank of
// 20,000 regions costs the views nothing until a branch opens.
#pragma once

#include <QAbstractItemModel>
#include <QAbstractTableModel>
#include <vector>

#include "core/items.h"

namespace kv::gui {

// Instruments with their layers and regions, then songs with their tracks.
class CollectionTreeModel final : public QAbstractItemModel {
  Q_OBJECT
 public:
  explicit CollectionTreeModel(Collection& collection, QObject* parent = nullptr);

  // Rebuilds the top level from the collection (after any command).
  void Reload();
  // 1 by name, 2 by the whole location word, 3 by program then bank.
  void SetSortMode(int mode);
  int SortMode() const { return sortMode_; }

  ItemId IdAt(const QModelIndex& index) const;
  QModelIndex IndexOf(ItemId id) const;

  QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
  QModelIndex parent(const QModelIndex& child) const override;
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;

 private:
  // The ids under an item in display order (the top level: kNoItem).
  std::vector<ItemId> ChildrenOf(ItemId id) const;
  Collection& collection_;
  std::vector<ItemId> top_;
  int sortMode_ = 2;
};

// The waveforms, one row each: Name, Length, Rate, Format, Root.
class WaveformListModel final : public QAbstractTableModel {
  Q_OBJECT
 public:
  explicit WaveformListModel(Collection& collection, QObject* parent = nullptr);

  void Reload();
  ItemId IdAt(int row) const { return row >= 0 && row < static_cast<int>(ids_.size()) ? ids_[row] : kNoItem; }
  int RowOf(ItemId id) const;

  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
  Qt::ItemFlags flags(const QModelIndex& index) const override;
  bool setData(const QModelIndex& index, const QVariant& value, int role) override;

 private:
  Collection& collection_;
  std::vector<ItemId> ids_;
};

// The text a tree row shows: the name, behind "bank:program" for instruments
// when that display is on.
QString TreeText(const Item& item, bool bankPrograms);
// Renames through SetName: at most the name's byte length, never splitting a
// UTF-8 character.
void RenameItem(Item& item, const QString& text);

}  // namespace kv::gui
