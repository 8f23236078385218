/* The README's embedding example as a C program: a host, the lock manager
   loaded by name, one option set and matched. Exits 0 when all went well. */
#include <stdio.h>

#include "qmelm.h"
#include "qmhost/qmhost.h"

int main(void) {
  QMHndlp host = qmhost_create(NULL);
  QMJnlh jnl = qmhost_journal_create(host, QM_JNL_STDERR, NULL);
  QMELMExtension *ext = (QMELMExtension *)qmhost_load_extension(host, "qmelm", jnl);
  if (ext == NULL) return 1;

  QMChar data[16];
  size_t n = qmhost_from_utf8("/srv/data", data, 16);
  QMELMSetOptionParms set = {0};
  set.path = data;
  set.pathlen = (QMStrSize)n;
  set.option = QMELM_Continue;
  if (ext->Functions.SetLockOption(ext, &set, jnl) != 0) return 2;

  QMChar file[32];
  QMELMMatchOptionParms m = {0};
  m.path = file;
  m.pathlen = (QMStrSize)qmhost_from_utf8("/srv/data/orders.db", file, 32);
  int rc = ext->Functions.MatchOption(ext, &m, jnl);
  QMELMLockOption option = m.option;
  if (rc == 0) ext->Functions.ReleaseMatch(ext, &m, jnl);

  ext->Common.generic.destroy(&ext->Common);
  jnl->generic.destroy(jnl);
  qmhost_destroy(host);
  if (rc != 0 || option != QMELM_Continue) return 3;
  puts("embedded lock manager answered Continue for /srv/data/orders.db");
  return 0;
}
