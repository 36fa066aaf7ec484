/*
 * ctl_table - rows and columns for people.
 */
#ifndef CTL_CTL_TABLE_H
#define CTL_CTL_TABLE_H

#include <ostream>
#include <string>
#include <vector>

namespace ctl
{

/*
 * A table whose columns are as wide as their longest cell. Cells are ASCII; an
 * empty one is shown as "-".
 */
class Table
{
public:
    explicit Table(std::vector<std::string> head);

    /* As many cells as the head has. */
    void row(std::vector<std::string> cells);

    bool is_empty() const
    {
        return rows_.size() == 1;
    }

    /* Each line begins with two blanks and has none at its end. */
    void print(std::ostream &out) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

} // namespace ctl

#endif
