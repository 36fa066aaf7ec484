/*
 * own_directories - a /run and a /var/tmp for one process and its children.
 *
 * A daemon keeps its pid file and its debug level at fixed places, where another
 * daemon of the host has its own. So whoever starts one beside others gives it
 * folders of his in these places, in a mount namespace of its own: what is
 * mounted there is seen nowhere else and goes with its last process. Users who
 * may make namespaces need no root for it.
 */
#ifndef ISOLATION_OWN_DIRECTORIES_H
#define ISOLATION_OWN_DIRECTORIES_H

#include <string>

/* Makes run/ and tmp/ in `directory`, which exists; they may be there. Throws as std::filesystem.
 */
void own_directories_make(const std::string &directory);

/*
 * The calling process, which has one thread, gets run/ as its /run and tmp/ as its
 * /var/tmp; without root it sees itself as root of a user namespace after that.
 * Its working directory stays what it was. Returns false with errno when this host does not allow
 * it; the process may then be in the new namespace already and should end.
 */
bool own_directories_enter(const std::string &directory);

#endif
