#pragma once
// Questions users of eight real applications ask, each with the tables (schema.table) it needs.
// Written from what the applications do, before the scope was tuned: some name their tables
// plainly, some by a plural, some by a word the application spells otherwise, some by columns.

#include <string>
#include <vector>

namespace scope_eval {

struct Question {
  const char* text;
  std::vector<std::string> needs;
};

inline const std::vector<Question>& questions() {
  static const std::vector<Question> all = {
      // Monitoring with its own names (zabbix).
      {"Which hosts are in maintenance right now?", {"zabbix.hosts", "zabbix.maintenances"}},
      {"How many triggers are in problem state per host?",
       {"zabbix.triggers", "zabbix.functions", "zabbix.items", "zabbix.hosts"}},
      {"List the items of host 'web01' with their update interval",
       {"zabbix.items", "zabbix.hosts"}},
      {"Show the last 100 values of item 23 from history", {"zabbix.history"}},
      {"Which users belong to the user group Zabbix administrators?",
       {"zabbix.users", "zabbix.users_groups", "zabbix.usrgrp"}},
      {"Which host groups does each host belong to?",
       {"zabbix.hosts", "zabbix.hosts_groups", "zabbix.hstgrp"}},
      {"How many alerts were sent by each media type last week?",
       {"zabbix.alerts", "zabbix.media_type"}},
      {"Which problems are not yet acknowledged?", {"zabbix.problem", "zabbix.acknowledges"}},
      {"What are the tags on the events of the last day?", {"zabbix.events", "zabbix.event_tag"}},
      {"Which dashboards does user Admin own?", {"zabbix.dashboard", "zabbix.users"}},
      {"Show the hourly trends of the CPU load items", {"zabbix.trends", "zabbix.items"}},
      {"List the actions and their operations", {"zabbix.actions", "zabbix.operations"}},
      {"Show the audit log entries of the last hour", {"zabbix.auditlog"}},
      {"Which web scenarios have failing steps?", {"zabbix.httptest", "zabbix.httpstep"}},
      {"What interfaces (IP and port) does each host have?", {"zabbix.interface", "zabbix.hosts"}},
      {"Which services does each SLA cover?", {"zabbix.sla", "zabbix.sla_service_tag"}},
      {"Show the name, description and expiry of each API token", {"zabbix.token"}},
      // Monitoring behind an application prefix (icinga IDO).
      {"Which hosts are currently down?", {"icinga.icinga_hoststatus", "icinga.icinga_hosts"}},
      {"List services in critical state with their host names",
       {"icinga.icinga_servicestatus", "icinga.icinga_services", "icinga.icinga_hosts",
        "icinga.icinga_objects"}},
      {"Show the downtime history for the last month", {"icinga.icinga_downtimehistory"}},
      {"Which contacts get notified for host db1?",
       {"icinga.icinga_host_contacts", "icinga.icinga_contacts", "icinga.icinga_hosts",
        "icinga.icinga_objects"}},
      {"How many notifications were sent per contact yesterday?",
       {"icinga.icinga_contactnotifications", "icinga.icinga_notifications"}},
      {"What comments were added to services this week?", {"icinga.icinga_comments"}},
      {"Show the state history of service http on web01",
       {"icinga.icinga_statehistory", "icinga.icinga_objects"}},
      {"Which host groups are there in Icinga and how many members do they have?",
       {"icinga.icinga_hostgroups", "icinga.icinga_hostgroup_members"}},
      {"Who acknowledged the last 20 service problems in Icinga?",
       {"icinga.icinga_acknowledgements"}},
      {"Which zones and endpoints are connected?",
       {"icinga.icinga_zones", "icinga.icinga_endpoints", "icinga.icinga_endpointstatus"}},
      // A wiki (mediawiki).
      {"How many pages are in the main namespace?", {"mediawiki.page"}},
      {"Which pages were edited most in the last month?", {"mediawiki.revision", "mediawiki.page"}},
      {"Who are the most active editors by number of revisions?",
       {"mediawiki.revision", "mediawiki.actor"}},
      {"List the categories with the most pages", {"mediawiki.category"}},
      {"Which pages are in category Help?", {"mediawiki.categorylinks", "mediawiki.page"}},
      {"Which users were blocked and why?", {"mediawiki.ipblocks"}},
      {"Show the recent changes by anonymous users", {"mediawiki.recentchanges"}},
      {"What files were uploaded to the wiki this year and by whom?",
       {"mediawiki.image", "mediawiki.actor"}},
      {"List the wiki users in the sysop group", {"mediawiki.user_groups", "mediawiki.user"}},
      {"Which pages link to the Main Page?", {"mediawiki.pagelinks", "mediawiki.page"}},
      {"How many watchlist entries does each wiki user have?",
       {"mediawiki.watchlist", "mediawiki.user"}},
      {"Show the wiki log entries of type delete", {"mediawiki.logging"}},
      {"Which external links point to example.org?", {"mediawiki.externallinks"}},
      {"What is the text of the latest revision of page Foo?",
       {"mediawiki.page", "mediawiki.revision", "mediawiki.slots", "mediawiki.content",
        "mediawiki.text"}},
      {"What's the rev_timestamp and rev_minor_edit of the last edits?", {"mediawiki.revision"}},
      // A ticket tracker (rt).
      {"How many open tickets does each queue have?", {"rt.tickets", "rt.queues"}},
      {"Which tickets are owned by user alice?", {"rt.tickets", "rt.users"}},
      {"Show the transactions of ticket 1234", {"rt.transactions", "rt.tickets"}},
      {"List the attachments of ticket 42 with their file names",
       {"rt.attachments", "rt.transactions"}},
      {"Which custom fields apply to the General queue?",
       {"rt.customfields", "rt.objectcustomfields", "rt.queues"}},
      {"What are the custom field values of ticket 7?",
       {"rt.objectcustomfieldvalues", "rt.customfields"}},
      {"Who are the members of the ticket group Support?",
       {"rt.groups", "rt.groupmembers", "rt.users"}},
      {"List the assets in catalog Laptops", {"rt.assets", "rt.catalogs"}},
      {"Which scrips run on ticket creation?", {"rt.scrips", "rt.scripconditions"}},
      {"Which articles are in class FAQ?", {"rt.articles", "rt.classes"}},
      // Backup (bacula).
      {"Which backup jobs failed last night?", {"bacula.job"}},
      {"How many files were backed up by backup job 120?", {"bacula.job"}},
      {"Which volumes are in pool Full and when were they last written?",
       {"bacula.media", "bacula.pool"}},
      {"How much data did each backup client back up this month?", {"bacula.job", "bacula.client"}},
      {"Which files of /etc were in the last backup of client web01?",
       {"bacula.file", "bacula.path", "bacula.filename", "bacula.job", "bacula.client"}},
      {"List the storage devices and their media types",
       {"bacula.storage", "bacula.device", "bacula.mediatype"}},
      {"List backup jobs with their jobbytes and jobfiles", {"bacula.job"}},
      // Webmail (roundcube).
      {"How many contacts does each mail user have in their address book?",
       {"roundcube.contacts", "roundcube.users"}},
      {"Which mail identities have a signature set?", {"roundcube.identities"}},
      {"List the saved searches of mail user bob", {"roundcube.searches", "roundcube.users"}},
      {"Which contact groups contain the most contacts?",
       {"roundcube.contactgroups", "roundcube.contactgroupmembers"}},
      {"Show the collected addresses of mail user 5", {"roundcube.collected_addresses"}},
      // DNS (pdns).
      {"How many records does each domain have?", {"pdns.domains", "pdns.records"}},
      {"Which domains are DNSSEC-signed, with active crypto keys?",
       {"pdns.domains", "pdns.cryptokeys"}},
      {"List the A records of example.com", {"pdns.records", "pdns.domains"}},
      {"What domain metadata is set for zone example.org?",
       {"pdns.domainmetadata", "pdns.domains"}},
      {"List the zone names with their notified serial and last check time", {"pdns.domains"}},
      // RADIUS (freeradius).
      {"Which users were online longest this week according to radius accounting?",
       {"radius.radacct"}},
      {"Show the failed radius authentication attempts of the last day", {"radius.radpostauth"}},
      {"What check attributes does radius user alice have?", {"radius.radcheck"}},
      {"Which NAS clients are configured?", {"radius.nas"}},
      {"Which radius groups is each user in?", {"radius.radusergroup"}},
      {"Show the acctstarttime and acctstoptime of username joe", {"radius.radacct"}},
  };
  return all;
}

}  // namespace scope_eval
