#!/usr/bin/env bash
# Measures how well qorchat's schema scope keeps the tables a question needs, on real application
# schemas: downloads the Debian packages that ship them (apt-get download, no installation), takes
# their PostgreSQL table definitions into a cache under the build tree, and runs
# qorchat_scope_eval, which loads them into a throwaway PostgreSQL 15 cluster, one schema per
# application. Needs network access to the Debian archive (once; the cache is kept), dpkg-deb, and
# postgresql-15's server programs. Usage: scripts/scope-eval.sh [build-dir] [eval options]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/dev}
shift || true
eval_program=$build/bench/qorchat_scope_eval
[[ -x $eval_program ]] || { echo "scope-eval: build the target qorchat_scope_eval in $build first" >&2; exit 1; }

cache=$build/scope-eval-cache
packages=(zabbix-server-pgsql icinga2-ido-pgsql mediawiki request-tracker5 bacula-director-pgsql
          roundcube-core pdns-backend-pgsql freeradius-config)
mkdir -p "$cache/debs" "$cache/tree" "$cache/sql"
if [[ ! -f $cache/tree/.complete ]]; then
  (cd "$cache/debs" && apt-get download "${packages[@]}")
  for deb in "$cache"/debs/*.deb; do dpkg-deb -x "$deb" "$cache/tree"; done
  touch "$cache/tree/.complete"
fi

# One file per application, named as the schema it goes into.
tree=$cache/tree
zcat "$tree/usr/share/zabbix-server-pgsql/schema.sql.gz" >"$cache/sql/zabbix.sql"
cp "$tree/usr/share/dbconfig-common/data/icinga2-ido-pgsql/install/pgsql" "$cache/sql/icinga.sql"
cp "$tree/usr/share/mediawiki/maintenance/postgres/tables-generated.sql" "$cache/sql/mediawiki.sql"
cp "$tree/usr/share/request-tracker5/etc/schema.Pg" "$cache/sql/rt.sql"
cp "$tree/usr/share/dbconfig-common/data/bacula-director-pgsql/install/pgsql" "$cache/sql/bacula.sql"
cp "$tree/usr/share/dbconfig-common/data/roundcube/install/pgsql" "$cache/sql/roundcube.sql"
cp "$tree/usr/share/pdns-backend-pgsql/schema/schema.pgsql.sql" "$cache/sql/pdns.sql"
cp "$tree/etc/freeradius/3.0/mods-config/sql/main/postgresql/schema.sql" "$cache/sql/radius.sql"

exec "$eval_program" "$cache/sql" "$@"
