// The accounts of a small server, used instead of the machine's. The cost of enumerating the
// machine's own accounts depends on its name services, not on the library.
#include <grp.h>
#include <pwd.h>
#include <shadow.h>

#include <array>
#include <cstddef>
#include <cstdio>

namespace {

constexpr std::size_t kCount = 24;
constexpr unsigned kFirstUid = 1000;  // of the first account after root

char empty[] = "";
char locked[] = "x";
char home[] = "/home";
char shell[] = "/bin/sh";
char hash[] = "$y$j9T$sssssssssssssssssssss$hhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhh";
char* no_members[] = {nullptr};

struct Account {
  char name[16];
  passwd user;
  spwd password;
  group own_group;
};

// The accounts, and the position of one walk for each database.
struct {
  std::array<Account, kCount> accounts;
  std::size_t user;
  std::size_t password;
  std::size_t group;
} state;

void fill(Account& account, std::size_t index) {
  const unsigned id = index == 0 ? 0 : kFirstUid + static_cast<unsigned>(index) - 1;
  std::snprintf(account.name, sizeof(account.name), index == 0 ? "root" : "user%zu", index);
  account.user = {account.name, locked, id, id, empty, home, shell};
  account.password.sp_namp = account.name;
  account.password.sp_pwdp = hash;
  account.own_group = {account.name, locked, id, no_members};
}

[[gnu::constructor]] void fill_all() {
  for (std::size_t i = 0; i < kCount; ++i) fill(state.accounts[i], i);
}

// The next account of a walk, or null at its end.
Account* next(std::size_t& place) {
  return place < kCount ? &state.accounts[place++] : nullptr;
}

}  // namespace

extern "C" {

void setpwent() {
  state.user = 0;
}
struct passwd* getpwent() {
  Account* const account = next(state.user);
  return account != nullptr ? &account->user : nullptr;
}
void endpwent() {}

void setspent() {
  state.password = 0;
}
struct spwd* getspent() {
  Account* const account = next(state.password);
  return account != nullptr ? &account->password : nullptr;
}
void endspent() {}

void setgrent() {
  state.group = 0;
}
struct group* getgrent() {
  Account* const account = next(state.group);
  return account != nullptr ? &account->own_group : nullptr;
}
void endgrent() {}
}
