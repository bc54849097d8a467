// Catalog.cpp: the rows first, then the builders; no logic between rows. The texts are wire data: clients and
// the host app depend on every byte of them. A description's tag says what a call needs: [L0] nothing,
// [L1] creates proposals, [L2] applies one or changes settings, [L3] runs a safe git command. The host app
// enforces that; the server only publishes it.
#include "Server/Catalog.hpp"

#include "Base/ByteBuffer.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <utility>
#include <vector>

namespace tidewell {

namespace {

enum class Type : std::uint8_t { string, integer, boolean, object, strings, objects };
enum class Need : std::uint8_t { optional, required };
using enum Type;
using enum Need;

struct PropertyRow {
    std::string_view name;
    Type type = string;
    Need need = optional;
    std::string_view description;
};

/// At most four properties; the unused ones have no name.
struct ToolRow {
    std::string_view name;
    std::array<PropertyRow, 4> properties;
    std::string_view description;
};

struct ResourceRow {
    std::string_view uri;
    std::string_view name;
    std::string_view description;
};

struct PromptRow {
    std::string_view name;
    std::string_view description;
    std::string_view text;
};

constexpr PropertyRow confirmationToken = {"confirmationToken", string, required, {}};

// clang-format off
constexpr ToolRow toolRows[] = {
    {"list_accounts",                    {},                                                                          "[L0] List GitHub accounts (no tokens), each with `lastSyncAt` and how many remote repositories are currently cached for it. An account can be `connected` and still have a stale or empty inventory — run `sync_remote_inventory_now` to refresh it."},
    {"list_remote_repositories",         {{{"accountId", string, optional, "Optional account filter."}}},             "[L0] List remote repositories from the cached GitHub inventory. Empty means the inventory has not been synced (not that the account has no repos) — call `sync_remote_inventory_now`."},
    {"list_local_repositories",          {},                                                                          "[L0] List locally-tracked repositories, each with the `remoteURL` seen at the last scan."},
    {"get_repository",                   {{{"repoId", string, required, {}}}},                                        "[L0] Get one repository (local+remote+mapping+sync)."},
    {"get_repository_status",            {{{"repoId", string, required, {}}}},                                        "[L0] Snapshot + syncState + health for a repo."},
    {"get_unmapped_remote_repositories", {},                                                                          "[L0] Remote repos without a local mapping."},
    {"get_unmapped_local_repositories",  {{{"withoutRemoteOnly", boolean, optional, "Only repos with no git remote. Default false."}}}, "[L0] Tracked local repos with no confirmed local↔remote mapping. Most of them DO have a git remote — it is reported in `remoteURL` so you can propose a mapping. Pass `withoutRemoteOnly: true` for only the repos that have no git remote at all."},
    {"get_mapping_candidates",           {{{"remoteRepoId", string, required, {}}, {"minConfidence", integer, optional, {}}}}, "[L0] Already-computed mapping candidates for a remote."},
    {"get_daily_summary",                {{{"date", string, optional, "YYYY-MM-DD; defaults to today."}}},            "[L0] TodaySummary + AlignmentSummary."},
    {"get_weekly_summary",               {{{"date", string, optional, "Any day in the target week."}}},               "[L0] WeeklySummary."},
    {"get_activity_ranking",             {{{"limit", integer, optional, "Max rows (default 10; 0 = all)."}, {"sort", string, optional, "lastActivity (default; real work time DESC) | workedTodayFirst (today's work bucketed first)."}, {"workedTodayOnly", boolean, optional, "Only repos worked today."}}}, "[L0] The last N projects actually worked on, most-recent first. Ranks by REAL work time (last commit / last uncommitted edit), across any day — not alphabetical. Excludes cache/tooling noise. Each row carries local↔remote alignment."},
    {"get_settings",                     {},                                                                          "[L0] App config (no secrets)."},
    {"get_audit_log",                    {{{"limit", integer, optional, {}}}},                                        "[L0] Recent agent audit-log entries."},
    {"get_proposal_status",              {{{"proposalId", string, required, {}}}},                                    "[L0] Look up a proposal's status; includes confirmationToken only when approved."},
    {"list_pending_proposals",           {{{"status", string, optional, "pending|approved|rejected|applied|expired"}}}, "[L0] List proposals, optionally filtered by status."},
    {"get_repositories_status",          {{{"repoIds", strings, required, {}}}},                                      "[L0] Batch snapshot + syncState + health for several repos."},
    {"get_project_health_overview",      {},                                                                          "[L0] Health score + top concern for every tracked repo."},
    {"get_branch_overview",              {},                                                                          "[L0] Cross-repo branch inventory (local+remote, ahead/behind)."},
    {"find_duplicate_clones",            {},                                                                          "[L0] Group tracked local repos that point at the same remote — candidate duplicate clones."},
    {"find_missing_local_clones",        {},                                                                          "[L0] Remote repos with no local clone, per current mappings."},
    {"search_local_projects",            {{{"rootPath", string, required, {}}, {"query", string, optional, {}}, {"maxDepth", integer, optional, {}}}}, "[L0] Find candidate local projects under a root."},
    {"scan_folder_for_git_repos",        {{{"rootPath", string, required, {}}, {"maxDepth", integer, optional, {}}}}, "[L0] List Git repos found under a folder."},
    {"inspect_local_git_repo",           {{{"path", string, required, {}}}},                                          "[L0] Branch/remote/status/last-commit for a path."},
    {"read_git_remote",                  {{{"path", string, required, {}}}},                                          "[L0] Parsed `git remote -v`."},
    {"read_git_branches",                {{{"path", string, required, {}}}},                                          "[L0] Local branches (+upstream/ahead/behind)."},
    {"read_git_commits",                 {{{"path", string, required, {}}, {"limit", integer, optional, {}}}},        "[L0] Recent git log."},
    {"read_git_status",                  {{{"path", string, required, {}}}},                                          "[L0] Dirty file list + counts from `git status --porcelain=v1`."},
    {"compute_repo_fingerprint",         {{{"path", string, required, {}}}},                                          "[L0] {firstCommitSha, recentShas[], remoteOwnerRepo, pkgName, readmeTitle}."},
    {"infer_project_metadata",           {{{"path", string, required, {}}}},                                          "[L0] Infer project type/stack/category/summary from a local checkout (README/package.json/etc)."},
    {"rescan_now",                       {},                                                                          "[L0] Force a LOCAL scan now: auto-enroll any new git repos found under the configured scan folders, then return the newly-tracked repoIds. Does not touch GitHub — use `sync_remote_inventory_now` for the remote half."},
    {"sync_remote_inventory_now",        {},                                                                          "[L0] Refresh the GitHub inventory now: re-list every sync-enabled account's remote repositories, then recompute local↔remote mappings, sync states, branch intelligence and health. Read-only toward GitHub (it lists, never writes), so no confirmation token is needed. Run this when `list_remote_repositories` is empty or an account's `lastSyncAt` is stale — it is the prerequisite for `propose_repository_mapping`. Returns {accountsSynced, accountsFailed, remoteRepositories, mappedRepositories, syncedAt, errors[]}."},
    {"propose_repository_mapping",       {{{"remoteRepoId", string, required, {}}, {"searchRoots", strings, optional, {}}, {"minConfidence", integer, optional, {}}, {"dryRun", boolean, optional, {}}}}, "[L1] Propose a local↔remote mapping; returns candidates + proposalId. `remoteRepoId` takes either the full `<accountId>:<owner>/<name>` id from `list_remote_repositories` or a plain `owner/name` when it is unambiguous. The remote must already be in the inventory — `sync_remote_inventory_now` first if not."},
    {"propose_settings_change",          {{{"changes", objects, required, {}}, {"filter", object, optional, {}}}},    "[L1] Propose settings changes as `{repoId?, field, value}` entries. Emits ONE proposal per change, each bound to the concrete apply tool and its exact arguments; returns `proposalIds`. Supported fields: category, priority, reminderRules, aliases, trackingEnabled (repo-scoped) · scanFolders, defaultCloneFolder, dailyReviewTime (global). An unsupported field is refused rather than turned into an unbound token."},
    {"propose_cleanup_plan",             {{{"scope", string, required, R"("today" | "week")"}}},                     "[L1] Propose a cleanup plan (text) + optional proposalId."},
    {"apply_repository_mapping",         {{{"remoteRepoId", string, required, {}}, {"localRepoId", string, required, {}}, confirmationToken}}, "[L2] Apply a mapping (requires confirmationToken)."},
    {"reject_repository_mapping",        {{{"proposalId", string, required, {}}}},                                    "[L2] Reject a mapping proposal."},
    {"mark_repository_remote_only",      {{{"repoId", string, required, {}}, confirmationToken}},                     "[L2] Mark repo remote-only."},
    {"mark_repository_local_only",       {{{"repoId", string, required, {}}, confirmationToken}},                     "[L2] Mark repo local-only."},
    {"mark_repository_ignored",          {{{"repoId", string, required, {}}, confirmationToken}},                     "[L2] Mark repo ignored."},
    {"update_mapping_confidence",        {{{"remoteRepoId", string, required, {}}, {"localRepoId", string, required, {}}, {"confidence", integer, required, {}}}}, "[L2] Update mapping confidence metadata only."},
    {"update_scan_folders",              {{{"folders", strings, required, {}}, confirmationToken}},                   "[L2] Replace scan folders."},
    {"set_default_clone_folder",         {{{"path", string, required, {}}, confirmationToken}},                       "[L2] Set default clone folder."},
    {"set_repository_category",          {{{"repoId", string, required, {}}, {"value", string, required, {}}, confirmationToken}}, "[L2] Set a repository's category."},
    {"set_repository_priority",          {{{"repoId", string, required, {}}, {"value", string, required, {}}, confirmationToken}}, "[L2] Set a repository's priority."},
    {"set_repository_reminder_rules",    {{{"repoId", string, required, {}}, {"rules", object, required, {}}, confirmationToken}}, "[L2] Set per-repo reminder rules."},
    {"set_daily_review_time",            {{{"time", string, required, {}}, confirmationToken}},                       "[L2] Set the daily review time (HH:mm)."},
    {"enable_repository_tracking",       {{{"repoId", string, required, {}}, confirmationToken}},                     "[L2] Enable tracking for a repo."},
    {"disable_repository_tracking",      {{{"repoId", string, required, {}}, confirmationToken}},                     "[L2] Disable tracking for a repo."},
    {"update_project_aliases",           {{{"repoId", string, required, {}}, {"aliases", strings, required, {}}, confirmationToken}}, "[L2] Update alternate names for a repo."},
    {"apply_settings_recipe",            {{{"recipe", string, required, {}}, {"filter", object, optional, {}}, confirmationToken}}, "[L2] NOT IMPLEMENTED — there is no recipe registry, so this always fails with `not_implemented` (without consuming your confirmation token). Use `propose_settings_change` plus the matching `set_*` apply tool instead; those have a real atomic apply path."},
    {"git_fetch",                        {{{"repoId", string, required, {}}, confirmationToken}},                     "[L3] Run `git fetch` (safe)."},
    {"git_pull_ff_only",                 {{{"repoId", string, required, {}}, confirmationToken}},                     "[L3] Run `git pull --ff-only` (safe)."},
    {"git_push",                         {{{"repoId", string, required, {}}, {"branch", string, optional, {}}, confirmationToken}}, "[L3] Run `git push origin <branch>` (safe)."},
    {"git_set_upstream_push",            {{{"repoId", string, required, {}}, {"branch", string, required, {}}, confirmationToken}}, "[L3] Run `git push -u origin <branch>` (safe)."},
    {"generate_daily_report",            {{{"date", string, optional, {}}}},                                          "[L0] Generate the daily report (markdown)."},
    {"generate_weekly_report",           {{{"date", string, optional, {}}}},                                          "[L0] Generate the weekly report (markdown)."},
    {"generate_mapping_report",          {},                                                                          "[L0] Generate the mapping report (markdown)."},
    {"generate_cleanup_plan",            {{{"scope", string, optional, R"("today" | "week")"}}},                     "[L0] Generate a cleanup plan (markdown)."},
    {"generate_project_health_report",   {{{"repoId", string, required, {}}}},                                        "[L0] Health report for a repo (markdown)."},
    {"export_report_markdown",           {{{"kind", string, required, {}}, {"date", string, optional, {}}}},          "[L0] Write a report under ~/Documents/QENTidewell/Reports/ and return the path."},
};

constexpr ResourceRow resourceRows[] = {
    {"tidewell://repositories/local",           "Local repositories",    "Locally-tracked repos."},
    {"tidewell://repositories/remote",          "Remote repositories",   "Remote repos across accounts."},
    {"tidewell://repositories/unmapped",        "Unmapped repositories", "Repos with no mapping."},
    {"tidewell://repositories/needs-attention", "Needs attention",       "Repos needing action."},
    {"tidewell://mappings/candidates",          "Mapping candidates",    "Computed mapping candidates."},
    {"tidewell://reports/today",                "Today report",          "Today's summary + alignment."},
    {"tidewell://reports/week",                 "Week report",           "This week's summary."},
    {"tidewell://settings",                     "Settings",              "App config (no secrets)."},
    {"tidewell://audit-log",                    "Audit log",             "Recent agent audit entries."},
};

constexpr PromptRow promptRows[] = {
    {"map_github_to_local",       "Map GitHub repos to local clones: list → search → propose → confirm → apply.", "Map my GitHub repositories to local clones. Run sync_remote_inventory_now if the inventory is empty, then use list_remote_repositories and get_unmapped_remote_repositories, then search_local_projects in my allowed roots, then propose_repository_mapping. Wait for me to confirm in Agent Review before calling apply_repository_mapping with the confirmation token."},
    {"cleanup_today",             "Plan today's repo cleanup using the safe tool order.",                         "Help me clean up today. Call get_daily_summary and propose_cleanup_plan. Only propose changes; I will confirm before anything is applied."},
    {"review_project_health",     "Review project health and suggest safe next actions.",                         "Review the health of my projects via get_repository_status and generate_project_health_report, then suggest safe next git actions."},
    {"prepare_weekly_report",     "Prepare a weekly engineering report.",                                         "Prepare my weekly report using get_weekly_summary and generate_weekly_report."},
    {"find_missing_repositories", "Find remote repos with no local clone.",                                       "Find GitHub repos I have not cloned locally using get_unmapped_remote_repositories and search_local_projects."},
    {"fix_mapping_conflicts",     "Resolve conflicting local↔remote mappings.",                                   "Find and resolve conflicting mappings. Inspect candidates, propose corrections, and wait for my confirmation before applying."},
};
// clang-format on

/// The text of an unknown prompt. "prompts/get" never asks for it, but promptMessages() is total.
constexpr std::string_view genericPromptText =
    "Use Tidewell tools in the safe order: list → search → propose → confirm → apply.";

template <typename Row>
constexpr bool namesAreUnique(std::span<const Row> rows) {
    for (std::size_t late = 0; late < rows.size(); ++late) {
        for (std::size_t early = 0; early < late; ++early) {
            if (rows[early].name == rows[late].name) return false;
        }
    }
    return true;
}

static_assert(std::size(toolRows) == 60 && namesAreUnique<ToolRow>(toolRows));
static_assert(std::size(resourceRows) == 9 && namesAreUnique<ResourceRow>(resourceRows));
static_assert(std::size(promptRows) == 6 && namesAreUnique<PromptRow>(promptRows));

using Members = std::vector<JSONValue::Member>;

JSONValue withDescription(Members members, std::string_view description) {
    if (!description.empty()) members.push_back({"description", description});
    return JSONValue::object(std::move(members));
}

JSONValue prop(std::string_view type, std::string_view description) {
    return withDescription({{"type", type}}, description);
}

JSONValue arrayProp(std::string_view itemType, std::string_view description) {
    return withDescription({{"type", "array"}, {"items", JSONValue::object({{"type", itemType}})}},
                           description);
}

JSONValue schema(Members properties, std::vector<JSONValue> required) {
    Members members = {{"type", "object"},
                       {"properties", JSONValue::object(std::move(properties))},
                       {"additionalProperties", false}};
    if (!required.empty()) members.push_back({"required", JSONValue::array(std::move(required))});
    return JSONValue::object(std::move(members));
}

/// The schema of every tool without arguments: no "properties" at all, not an empty one.
const JSONValue& objNoArg() {
    static const JSONValue value = JSONValue::object({{"type", "object"}, {"additionalProperties", false}});
    return value;
}

JSONValue tool(std::string_view name, std::string_view description, JSONValue inputSchema) {
    return JSONValue::object(
        {{"name", name}, {"description", description}, {"inputSchema", std::move(inputSchema)}});
}

JSONValue resource(std::string_view uri, std::string_view name, std::string_view description) {
    return JSONValue::object(
        {{"uri", uri}, {"name", name}, {"description", description}, {"mimeType", "application/json"}});
}

JSONValue prompt(std::string_view name, std::string_view description) {
    return JSONValue::object(
        {{"name", name}, {"description", description}, {"arguments", JSONValue::array({})}});
}

JSONValue propertyOf(const PropertyRow& row) {
    switch (row.type) {
    case string: return prop("string", row.description);
    case integer: return prop("integer", row.description);
    case boolean: return prop("boolean", row.description);
    case object: return prop("object", row.description);
    case strings: return arrayProp("string", row.description);
    case objects: return arrayProp("object", row.description);
    }
    return nullptr;
}

JSONValue schemaOf(const ToolRow& row) {
    Members properties;
    std::vector<JSONValue> names;
    for (const PropertyRow& property : row.properties) {
        if (property.name.empty()) break;
        properties.push_back({std::string(property.name), propertyOf(property)});
        if (property.need == required) names.emplace_back(property.name);
    }
    return properties.empty() ? objNoArg() : schema(std::move(properties), std::move(names));
}

/// The text of one table: every row through `build`, in order.
template <typename Row, typename Build>
ByteBuffer table(std::span<const Row> rows, Build build) {
    std::vector<JSONValue> entries;
    std::ranges::transform(rows, std::back_inserter(entries), build);
    ByteBuffer text;
    JSONValue::array(std::move(entries)).writeJSON(text);
    text.shrink();
    return text;
}

}  // namespace

std::string_view Catalog::tools() {
    static const ByteBuffer text = table<ToolRow>(
        toolRows, [](const ToolRow& row) { return tool(row.name, row.description, schemaOf(row)); });
    return text.view();
}

std::string_view Catalog::resources() {
    static const ByteBuffer text = table<ResourceRow>(
        resourceRows, [](const ResourceRow& row) { return resource(row.uri, row.name, row.description); });
    return text.view();
}

std::string_view Catalog::prompts() {
    static const ByteBuffer text =
        table<PromptRow>(promptRows, [](const PromptRow& row) { return prompt(row.name, row.description); });
    return text.view();
}

bool Catalog::hasPrompt(std::string_view name) noexcept {
    return std::ranges::find(promptRows, name, &PromptRow::name) != std::end(promptRows);
}

JSONValue Catalog::promptMessages(std::string_view name) {
    const auto* const row = std::ranges::find(promptRows, name, &PromptRow::name);
    const std::string_view text = row == std::end(promptRows) ? genericPromptText : row->text;
    const JSONValue content = JSONValue::object({{"type", "text"}, {"text", text}});
    const JSONValue message = JSONValue::object({{"role", "user"}, {"content", content}});
    return JSONValue::object({{"messages", JSONValue::array({message})}});
}

}  // namespace tidewell
