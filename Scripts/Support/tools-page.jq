# Makes Documentation/Tools.md from what the program publishes: its $lists, and the $messages of each prompt.

# Everything that a schema says is shown or refused: a page that leaves something out would not be true.
def only($known): (keys - $known) as $other | if $other == [] then . else error("not shown: \($other)") end;

def levels: {
    L0: ["reading", "Reads, refreshes and reports; works directly"],
    L1: ["proposing", "Creates proposals in the app for the user to judge; changes nothing by itself"],
    L2: ["applying", "Applies an approved proposal, or changes settings"],
    L3: ["safe git", "Runs a git command that destroys nothing: fetch, fast-forward pull, push"]
};
def level: .description | (capture("^\\[(?<tag>[^]]*)\\] ").tag? // error("no level: \(.)"))
    | if in(levels) then . else error("unknown level: \(.)") end;
def needsToken: .inputSchema.required // [] | index("confirmationToken") != null;

def cell: gsub("\\|"; "\\|");
def type: if .type == "array" then "array of \(.items | only(["type"]).type)s" else .type end;
def allowed: if .enum then "One of \(.enum | map("`\(.)`") | join(", "))." else empty end;

# Required ones first, in the order in which the schema names them.
def arguments:
    only(["type", "properties", "required", "additionalProperties"])
    | if .additionalProperties == false then . else error("takes more than it names: \(.)") end
    | (.required // []) as $required
    | ((.properties // {}) | keys_unsorted) as $names
    | .properties as $properties
    | ($required + (($names - $required) | sort))[]
    | . as $name
    | $properties[$name] | only(["type", "items", "description", "enum"])
    | "| `\($name)` | \(type) | \(if $name | IN($required[]) then "required" else "optional" end) | \(
        [.description // empty, allowed] | join(" ") | cell) |";

def section:
    only(["name", "description", "inputSchema"])
    | "", "### `\(.name)`", "", (.description | sub("^\\[[^]]*\\] "; "")),
    ([.inputSchema | arguments] | if . == [] then empty else
        "", "| Argument | Type | Need | Description |", "|---|---|---|---|", .[] end);

($lists.tools | group_by(level) | map({key: (.[0] | level), value: .}) | from_entries) as $byLevel |

"# Tools, resources and prompts",
"",
"What the program publishes, written by `Scripts/tools-page` from its own answers. A test compares this page with the",
"program, so do not edit it: change `Catalog.cpp` and run the script.",
"",
"A tool's description begins with its level. The server publishes the level and forwards every call alike: the app",
"alone decides what a call may do.",
"",
"| Level | What a call does | Tools | Of them with a `confirmationToken` |",
"|---|---|---|---|",
($byLevel | to_entries[] | "| [\(.key)](#\(.key | ascii_downcase)-\(levels[.key][0] | gsub(" "; "-"))) | \(
    levels[.key][1]) | \(.value | length) | \(.value | map(select(needsToken)) | length) |"),
"",
"No tool takes other arguments than those listed here; many are described by their name alone. The `confirmationToken`",
"comes from `get_proposal_status`, once the user has approved the proposal under Agent Review in Tidewell. What a tool",
"answers is up to the app; [AgentSocket.md](AgentSocket.md) has the frame.",
($byLevel | to_entries[] | "", "## \(.key): \(levels[.key][0])", "",
    (.value | map("[\(.name)](#\(.name))") | join(" · ")), (.value[] | section)),
"",
"## Resources",
"",
"Each is read with `resources/read`; its content is JSON (`application/json`).",
"",
"| URI | Name | Description |",
"|---|---|---|",
($lists.resources[] | only(["uri", "name", "description", "mimeType"])
    | if .mimeType == "application/json" then . else error("another type: \(.)") end
    | "| `\(.uri)` | \(.name | cell) | \(.description | cell) |"),
"",
"## Prompts",
"",
"None takes arguments. Each is one message from the user; the server answers `prompts/get` by itself.",
([$lists.prompts, $messages] | transpose[]
    | (.[0] | only(["name", "description", "arguments"]) | if .arguments == [] then . else error("arguments: \(.)") end)
        as $prompt
    | "", "### `\($prompt.name)`", "", $prompt.description, "",
        (.[1].messages[] | only(["role", "content"]) | "> \(.content | only(["type", "text"]).text)"))
