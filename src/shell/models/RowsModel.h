#pragma once

#include <QAbstractListModel>
#include <QList>

// A list model over rows worked out afresh from their source at each change. `Row` has an `id`,
// an equality, `QVariant value(int role) const` and `static QHash<int, QByteArray> roleNames()`.
// A refresh keeps the rows that keep their place and updates them in place, then replaces
// the list below them: a new entry or a streamed chunk only ever changes the tail, so views
// keep their delegates.
template<typename Row>
class RowsModel : public QAbstractListModel {
public:
    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex& parent = {}) const override
    {
        return parent.isValid() ? 0 : static_cast<int>(m_rows.size());
    }

    QVariant data(const QModelIndex& index, int role) const override
    {
        if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
            return {};
        return m_rows.at(index.row()).value(role);
    }

    QHash<int, QByteArray> roleNames() const override { return Row::roleNames(); }

protected:
    const QList<Row>& rows() const { return m_rows; }

    void refresh(const QList<Row>& next)
    {
        qsizetype kept = 0;
        while (kept < m_rows.size() && kept < next.size() && m_rows.at(kept).id == next.at(kept).id)
            ++kept;
        if (kept < m_rows.size()) {
            beginRemoveRows({}, static_cast<int>(kept), static_cast<int>(m_rows.size() - 1));
            m_rows.resize(kept);
            endRemoveRows();
        }
        for (qsizetype k = 0; k < kept; ++k) {
            if (m_rows.at(k) == next.at(k))
                continue;
            m_rows[k] = next.at(k);
            const auto changed = index(static_cast<int>(k));
            Q_EMIT dataChanged(changed, changed);
        }
        if (kept < next.size()) {
            beginInsertRows({}, static_cast<int>(kept), static_cast<int>(next.size() - 1));
            m_rows.append(next.mid(kept));
            endInsertRows();
        }
    }

private:
    QList<Row> m_rows;
};
