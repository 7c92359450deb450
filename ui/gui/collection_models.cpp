#include "ui/gui/collection_models.h"

#include <algorithm>
#include <cstdio>
#include <strings.h>

#include "core/settings.h"
#include "core/wavestore.h"
#include "formats/registry.h"

namespace kv::gui {

namespace {

QString FromUtf8(std::string_view s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }

bool NameLess(const Item* a, const Item* b) {
  const int c = strcasecmp(a->name, b->name);
  return c != 0 ? c < 0 : a->id < b->id;
}

}  // namespace

QString TreeText(const Item& item, bool bankPrograms) {
  if (item.Type() == ItemType::Instrument && bankPrograms) {
    const auto& inst = static_cast<const Instrument&>(item);
    char head[32];
    std::snprintf(head, sizeof head, "%u:%03u ", (inst.location >> 7) & 0x3FFF, LocationProgram(inst.location));
    return QString::fromLatin1(head) + FromUtf8(item.Name());
  }
  return FromUtf8(item.Name());
}

void RenameItem(Item& item, const QString& text) {
  const QByteArray utf8 = text.toUtf8();
  item.SetName(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
}

// ---- tree ----

CollectionTreeModel::CollectionTreeModel(Collection& collection, QObject* parent)
    : QAbstractItemModel(parent), collection_(collection) {
  Reload();
}

void CollectionTreeModel::Reload() {
  beginResetModel();
  std::vector<Instrument*> instruments = collection_.All<Instrument>();
  switch (sortMode_) {
    case 1:
      std::stable_sort(instruments.begin(), instruments.end(), NameLess);
      break;
    case 3:
      std::stable_sort(instruments.begin(), instruments.end(), [](const Instrument* a, const Instrument* b) {
        auto key = [](uint32_t l) { return (LocationProgram(l) << 15) | (l >> 7); };
        return key(a->location) < key(b->location);
      });
      break;
    default:
      std::stable_sort(instruments.begin(), instruments.end(),
                       [](const Instrument* a, const Instrument* b) { return a->location < b->location; });
  }
  std::vector<Song*> songs = collection_.All<Song>();
  std::stable_sort(songs.begin(), songs.end(), NameLess);
  top_.clear();
  for (Instrument* i : instruments) top_.push_back(i->id);
  for (Song* s : songs) top_.push_back(s->id);
  endResetModel();
}

void CollectionTreeModel::SetSortMode(int mode) {
  sortMode_ = mode >= 1 && mode <= 3 ? mode : 2;
  Reload();
}

std::vector<ItemId> CollectionTreeModel::ChildrenOf(ItemId id) const {
  if (id == kNoItem) return top_;
  const Item* item = collection_.Find(id);
  if (!item) return {};
  switch (item->Type()) {
    case ItemType::Instrument:
    case ItemType::Layer:
    case ItemType::Song:
      return item->children.snapshot();
    default:
      return {};
  }
}

ItemId CollectionTreeModel::IdAt(const QModelIndex& index) const {
  return index.isValid() ? static_cast<ItemId>(index.internalId()) : kNoItem;
}

QModelIndex CollectionTreeModel::IndexOf(ItemId id) const {
  const Item* item = collection_.Find(id);
  if (!item || item->Type() == ItemType::Collection || item->Type() == ItemType::Waveform) return {};
  const ItemId parentId =
      item->Type() == ItemType::Instrument || item->Type() == ItemType::Song ? kNoItem : item->parentId;
  const std::vector<ItemId> siblings = ChildrenOf(parentId);
  const auto at = std::find(siblings.begin(), siblings.end(), id);
  if (at == siblings.end()) return {};
  return createIndex(static_cast<int>(at - siblings.begin()), 0, static_cast<quintptr>(id));
}

QModelIndex CollectionTreeModel::index(int row, int column, const QModelIndex& parent) const {
  if (column != 0 || row < 0) return {};
  const Item* owner = parent.isValid() ? collection_.Find(IdAt(parent)) : nullptr;
  if (parent.isValid()) {
    if (!owner || row >= static_cast<int>(owner->children.size())) return {};
    return createIndex(row, 0, static_cast<quintptr>(owner->children[static_cast<std::size_t>(row)]));
  }
  if (row >= static_cast<int>(top_.size())) return {};
  return createIndex(row, 0, static_cast<quintptr>(top_[static_cast<std::size_t>(row)]));
}

QModelIndex CollectionTreeModel::parent(const QModelIndex& child) const {
  const Item* item = collection_.Find(IdAt(child));
  if (!item || item->Type() == ItemType::Instrument || item->Type() == ItemType::Song) return {};
  return IndexOf(item->parentId);
}

int CollectionTreeModel::rowCount(const QModelIndex& parent) const {
  if (!parent.isValid()) return static_cast<int>(top_.size());
  const Item* item = collection_.Find(IdAt(parent));
  if (!item) return 0;
  const ItemType t = item->Type();
  return t == ItemType::Instrument || t == ItemType::Layer || t == ItemType::Song
             ? static_cast<int>(item->children.size())
             : 0;
}

int CollectionTreeModel::columnCount(const QModelIndex&) const { return 1; }

QVariant CollectionTreeModel::data(const QModelIndex& index, int role) const {
  const Item* item = collection_.Find(IdAt(index));
  if (!item) return {};
  if (role == Qt::DisplayRole) return TreeText(*item, Settings().app.bDispBankPrgs != 0);
  if (role == Qt::EditRole) return FromUtf8(item->Name());
  return {};
}

Qt::ItemFlags CollectionTreeModel::flags(const QModelIndex& index) const {
  if (!index.isValid()) return Qt::NoItemFlags;
  return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsEditable;
}

bool CollectionTreeModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  Item* item = collection_.Find(IdAt(index));
  if (!item || role != Qt::EditRole) return false;
  RenameItem(*item, value.toString());
  emit dataChanged(index, index);
  return true;
}

// ---- waveform list ----

WaveformListModel::WaveformListModel(Collection& collection, QObject* parent)
    : QAbstractTableModel(parent), collection_(collection) {
  Reload();
}

void WaveformListModel::Reload() {
  beginResetModel();
  ids_.clear();
  for (const Waveform* w : collection_.All<Waveform>()) ids_.push_back(w->id);
  endResetModel();
}

int WaveformListModel::RowOf(ItemId id) const {
  const auto at = std::find(ids_.begin(), ids_.end(), id);
  return at == ids_.end() ? -1 : static_cast<int>(at - ids_.begin());
}

int WaveformListModel::rowCount(const QModelIndex& parent) const {
  return parent.isValid() ? 0 : static_cast<int>(ids_.size());
}
int WaveformListModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : 5; }

QVariant WaveformListModel::data(const QModelIndex& index, int role) const {
  const Waveform* w = collection_.FindWave(IdAt(index.row()));
  if (!w) return {};
  if (role == Qt::EditRole && index.column() == 0) return FromUtf8(w->Name());
  if (role == Qt::TextAlignmentRole && (index.column() == 1 || index.column() == 2))
    return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
  if (role != Qt::DisplayRole) return {};
  switch (index.column()) {
    case 0: return FromUtf8(w->Name());
    case 1: return QString::number(w->length);
    case 2: return QString::number(w->sampleRate);
    case 3: {
      const std::string coding = WaveCodingText(*w);
      if (!coding.empty()) return FromUtf8(coding);
      const QString channels = w->channels == 2 ? QStringLiteral(" stereo") : QString();
      return QString::fromLatin1(PreferredFormatName(w->preferredFormat)) + channels;
    }
    case 4: return QString::fromLatin1(NoteName(w->rootKey));
    default: return {};
  }
}

QVariant WaveformListModel::headerData(int section, Qt::Orientation orientation, int role) const {
  static const char* const kTitles[] = {"Name", "Length", "Rate", "Format", "Root"};
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole || section < 0 || section > 4) return {};
  return QString::fromLatin1(kTitles[section]);
}

Qt::ItemFlags WaveformListModel::flags(const QModelIndex& index) const {
  if (!index.isValid()) return Qt::NoItemFlags;
  Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
  if (index.column() == 0) f |= Qt::ItemIsEditable;
  return f;
}

bool WaveformListModel::setData(const QModelIndex& index, const QVariant& value, int role) {
  Waveform* w = collection_.FindWave(IdAt(index.row()));
  if (!w || role != Qt::EditRole || index.column() != 0) return false;
  RenameItem(*w, value.toString());
  emit dataChanged(index, index);
  return true;
}

}  // namespace kv::gui
