# Makes the tables of Documentation/Performance.md from what SideBySide wrote (jq -r), and says at the end of a row
# whether its limits are met. A figure is the median; "ours" has the middle half of what was seen in brackets.

include "figures";

# --- figures -------------------------------------------------------------------------------------------------------

def digits:
    if . < 10 then . * 100 | round / 100 elif . < 100 then . * 10 | round / 10 else round end | tostring;

def unit($figure):
    if $figure == "real_time" or $figure == "processor" then
        if . < 2000 then [1, "µs"] elif . < 2e6 then [1e3, "ms"] else [1e6, "s"] end
    else [1e6, "MB"] end;

def shown($seen; $work; $server; $figure):
    values($seen; $work; $server; $figure)
    | if length == 0 then "-" else
        (quantile(0.5) | unit($figure)) as [$unit, $name]
        | "\(quantile(0.5) / $unit | digits) \($name)"
          + if $server == "ours" then " (\(quantile(0.25) / $unit | digits)–\(quantile(0.75) / $unit | digits))"
            else "" end
    end;

# --- limits --------------------------------------------------------------------------------------------------------

# One limit of a row: {ratio, what, most}. No most means that the ratio is shown and not judged.
def ratio($over; $under; $what; $most):
    {$what, $most, ratio: (if $over == null or $under == null then null else $over / $under end)};

def isMissed: .ratio != null and .most != null and .ratio > .most;

def marked: isMissed as $isMissed
    | if .ratio == null then "-" else "\(.ratio | digits)\(.what)" | if $isMissed then "**\(.)**" else . end end;

def judged: marked + if .ratio == null or .most == null then "" else " (\(.most))" end;

def met:
    if all(.ratio == null or .most == null) then "" elif any(isMissed) then "**no**" else "yes" end;

# --- the tables ----------------------------------------------------------------------------------------------------

def servers: ["ours", "floor", "direct", "plain", "expert", "sdk"];

def head($work; $last): "| \($work) | ours | floor | no hand-off | plain | expert's | SDK's | \($last) |",
    "|---|---|---|---|---|---|---|\($last | gsub("[^|]+"; "---"))|";

# Nothing for what was not measured.
def row($seen; $title; $work; $figure; $limits):
    select(values($seen; $work; "ours"; $figure) != [])
    | ([$title] + (servers | map(shown($seen; $work; .; $figure))) + [$limits | map(judged) | join(", ")])
    | "| \(join(" | ")) |";

# What takes how long: [work, title, [server or other work to compare with, limit]…].
def works: [
    ["start", "start to first reply", ["floor", 1.15]],
    ["ping", "`ping`, pipelined", ["floor", 1.5], ["expert", 1.0]],
    ["list", "`tools/list`, sequential", ["floor", 1.3]],
    ["list-pipelined", "`tools/list`, pipelined", ["floor", 1.3]],
    ["call", "`tools/call`, sequential", ["floor", 1.1]],
    ["1MB", "1 MB reply", ["floor", 5], ["expert", 1.1]],
    ["8MB", "8 MB reply", ["floor", 3], ["expert", 0.5]],
    ["64MB", "64 MB reply", ["8MB", 8.5], ["expert", 1.0]]];

def names: {floor: " x floor", expert: " x expert's", "8MB": " x 8 MB reply"};

def times($seen; $figure; $isJudged):
    works[] as [$work, $title] | [works[] | select(.[0] == $work) | .[2:][]]
    | map(. as [$other, $most]
        | (if $other == "8MB" then ["8MB", "ours"] else [$work, $other] end) as [$otherWork, $server]
        | ratio(median($seen; $work; "ours"; $figure); median($seen; $otherWork; $server; $figure);
            names[$other]; if $isJudged then $most else null end)) as $limits
    | row($seen; $title; $work; $figure; $limits) + if $isJudged then " \($limits | met) |" else "" end;

def memory($seen; $title; $work; $figure; $under; $what; $most):
    [ratio(median($seen; $work; "ours"; $figure); $under; $what; $most)] as $limits
    | row($seen; $title; $work; $figure; $limits) + " \($limits | met) |";

# The context has their names in order, and by each name its title.
def shapes($seen; $context):
    $context.shapes | split(" ")[] as $work | $context[$work] as $title
    | median($seen; $work; "ours"; "real_time") as $time
    | select($time != null)
    | median($seen; $work; "ours"; "reply") as $reply
    | [ratio($time; median($seen; $work; "plain"; "real_time"); ""; 0.4),
       ratio(median($seen; $work; "ours"; "peak"); $reply; ""; 4),
       ratio(median($seen; $work; "ours"; "residentAfter"); 1e6; " MB"; 2)] as $limits
    | [$title, "\($reply / 1e6 | digits) MB", (["ours", "plain", "expert"][] as $server
          | shown($seen; $work; $server; "real_time"))] + ($limits | map(marked)) + [$limits | met]
    | "| \(join(" | ")) |";

.context as $context | seen as $seen
| head("client's clock"; "ratio (limit) | met"), times($seen; "real_time"; true), "",
  head("server's processor time"; "ratio"), times($seen; "processor"; false), "",
  head("memory"; "ratio (limit) | met"),
  memory($seen; "resident after `tools/list`"; "64MB"; "resident"; 1e6; " MB"; 3),
  memory($seen; "peak, 64 MB reply"; "64MB"; "peak"; median($seen; "64MB"; "ours"; "reply"); " x reply"; 2.3),
  memory($seen; "resident after it"; "64MB"; "residentAfter"; 1e6; " MB"; 2), "",
  "| shape | reply | ours | plain | expert's | x plain (0.4) | peak x reply (4) | resident after (2 MB) | met |",
  "|---|---|---|---|---|---|---|---|---|",
  shapes($seen; $context)
