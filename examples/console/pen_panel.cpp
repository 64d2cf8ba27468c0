#include "pen_panel.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QTreeWidget>
#include <iterator>

#include "appearance.h"
#include "pen_canvas.h"
#include "pen_channel.h"
#include "text_parts.h"

namespace zq::console {
namespace {

constexpr int kPacketsShown = 500;
enum Column { kNumber, kMeaning, kCode, kX, kY, kPressure, kHeader, kColumns };
// Texts that fit into the columns; the header takes the rest.
constexpr const char* kSamples[] = {"0000", "Event", "0x26016", "000", "000", "Pressure"};
static_assert(std::size(kSamples) == kHeader);
constexpr int kCellPadding = 12;

QString meaningOf(uint32_t code) {
  switch (code) {
    case kPenDown:
      return "down";
    case kPenDrag:
      return "drag";
    case kPenUp:
      return "up";
    default:
      return "event";
  }
}

// The header's bytes, a blank between its fields.
QString headerHex(const PenPortHeader& header) {
  constexpr int kFieldSizes[] = {1, 1, 2, 4, 4, 4};
  const QByteArray bytes(reinterpret_cast<const char*>(&header), sizeof header);
  QStringList fields;
  int at = 0;
  for (const int size : kFieldSizes) {
    fields.append(bytes.mid(at, size).toHex());
    at += size;
  }
  return fields.join(' ');
}

QTreeWidget* makePacketTable(QWidget* parent) {
  auto* const table = new QTreeWidget(parent);
  table->setObjectName("packets");
  table->setColumnCount(kColumns);
  table->setHeaderLabels({"No.", "Event", "Code", "x", "y", "Pressure", "Header"});
  table->setRootIsDecorated(false);
  table->setUniformRowHeights(true);
  table->setSelectionMode(QAbstractItemView::NoSelection);
  table->setItemDelegate(new CellDelegate(kHeader, table));
  table->setAccessibleName("Packets");
  const QFontMetrics metrics = table->fontMetrics();
  for (int column = 0; column < kHeader; ++column) {
    table->setColumnWidth(column, metrics.horizontalAdvance(kSamples[column]) + kCellPadding);
  }
  return table;
}

}  // namespace

PenPanel::PenPanel(QWidget* parent)
    : QFrame(parent),
      count_(new QLabel(this)),
      canvas_(new PenCanvas(this)),
      packets_(makePacketTable(this)) {
  count_->setObjectName("count");
  auto* const clearButton =
      new QPushButton(style()->standardIcon(QStyle::SP_DialogResetButton), "C&lear", this);
  explain(*clearButton, "Clear the sheet and the list of packets");
  connect(clearButton, &QPushButton::clicked, this, &PenPanel::clear);

  auto* const head = new QHBoxLayout;
  head->addWidget(makeHeading("Pen", this));
  head->addWidget(count_, 1);
  head->addWidget(clearButton);
  auto* const layout = new QVBoxLayout(this);
  layout->setContentsMargins(8, 6, 8, 6);
  layout->addLayout(head);
  layout->addWidget(canvas_, 3);
  layout->addWidget(packets_, 2);
  clear();
}

void PenPanel::clear() {
  canvas_->clear();
  packets_->clear();
  sent_ = 0;
  showCount();
}

void PenPanel::showCount() {
  count_->setText(sent_ == 0 ? QString("pen %1 on %2").arg(PenChannel::kPenId).arg(kPenPortName)
                             : QString("%1 packets sent").arg(sent_));
}

void PenPanel::showPacket(const PenPacket& packet) {
  ++sent_;
  showCount();
  auto* const row = new QTreeWidgetItem(packets_);
  row->setText(kNumber, QString::number(packet.header.reqId));
  row->setText(kCode, "0x" + QString::number(packet.code, 16));
  row->setText(kMeaning, meaningOf(packet.code));
  row->setText(kX, QString::number(packet.x));
  row->setText(kY, QString::number(packet.y));
  row->setText(kPressure, QString::number(packet.pressure, 'f', 3));
  row->setText(kHeader, headerHex(packet.header));
  row->setFont(kHeader, fixedFont());
  if (packets_->topLevelItemCount() > kPacketsShown) delete packets_->takeTopLevelItem(0);
  packets_->scrollToItem(row);
}

}  // namespace zq::console
