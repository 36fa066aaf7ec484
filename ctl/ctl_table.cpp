#include "ctl/ctl_table.h"

#include <algorithm>

namespace ctl
{

Table::Table(std::vector<std::string> head) : rows_{std::move(head)}
{
}

void Table::row(std::vector<std::string> cells)
{
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream &out) const
{
    const auto shown = [](const std::string &cell) -> std::string {
        return cell.empty() ? "-" : cell;
    };
    std::vector<size_t> widths(rows_.front().size());
    for (const auto &cells : rows_) {
        for (size_t column = 0; column < widths.size(); column++)
            widths[column] = std::max(widths[column], shown(cells[column]).size());
    }
    for (const auto &cells : rows_) {
        std::string line = "  ";
        for (size_t column = 0; column < widths.size(); column++) {
            const std::string cell = shown(cells[column]);
            line += cell;
            if (column + 1 < widths.size())
                line.append(widths[column] - cell.size() + 2, ' ');
        }
        out << line << '\n';
    }
}

} // namespace ctl
