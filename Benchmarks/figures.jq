# What tables.jq and curves.jq have in common: figures out of Google Benchmark's JSON.

def quantile($q):
    sort | ((length - 1) * $q) as $at | .[$at | floor] + ($at - ($at | floor)) * (.[$at | ceil] - .[$at | floor]);

# All that was seen, by "work/server".
def seen: [.benchmarks[] | select(.run_type == "iteration") | . + {key: (.name | split("/") | .[:2] | join("/"))}]
    | group_by(.key) | map({key: .[0].key, value: .}) | from_entries;

def values($seen; $work; $server; $figure):
    [$seen["\($work)/\($server)"] // [] | .[] | .[$figure] | select(. != null)];

def median($seen; $work; $server; $figure):
    values($seen; $work; $server; $figure) | if length == 0 then null else quantile(0.5) end;
