#include "ctl/ctl_table.h"

#include <algorithm>

namespace ctl
{

Table::Table(std::vector<std::string> head) : rows{std::move(head)}
{
}

void Table::row(std::vector<std::string> cells)
{
    rows.push_back(std::move(cells));
}

void Table::print(std::ostream &out) const
{
    const auto shown = [](const std::string &cell) -> std::string {
        return cell.empty() ? "-" : cell;
    };
    std::vector<size_t> widths(rows.front().size());
    for (const auto &cells : rows) {
        for (size_t column = 0; column < widths.size(); column++)
            widths[column] = std::max(widths[column], shown(cells[column]).size());
    }
    for (const auto &cells : rows) {
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
