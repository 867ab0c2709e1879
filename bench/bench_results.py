"""send_bench's JSON output (--benchmark_out_format=json), read the same way
by run-floor.sh and compare-builds.sh."""
import json

TO_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def medians(path):
    """Per run name: the median aggregate when there is one (repetitions),
    else the single run; an errored run gives {"error": its message}."""
    found = {}
    for run in json.load(open(path))["benchmarks"]:
        name = run.get("run_name", run["name"])
        if run.get("error_occurred"):
            found.setdefault(name, {"error": run.get("error_message", "failed")})
        elif run.get("run_type") == "aggregate":
            if run.get("aggregate_name") == "median":
                found[name] = run
        elif name not in found or "error" in found[name]:
            found[name] = run
    return found


def lookup(found, prefix):
    """The run named prefix or prefix/..., or None."""
    for name, run in found.items():
        if name == prefix or name.startswith(prefix + "/"):
            return run
    return None


def wall_ms(run):
    return run["real_time"] * TO_MS[run["time_unit"]]


def cpu_ms(run):
    return run["cpu_s"] * 1e3


def is_split(kemail, floor):
    """True for a case sent in pieces, whose runs both count them."""
    return "pieces" in kemail and "pieces" in floor and floor["pieces"] > 0


def floor_scale(kemail, floor):
    """For split cases, the factor that takes the floor's cost to the
    library's number of pieces; 1 otherwise."""
    return kemail["pieces"] / floor["pieces"] if is_split(kemail, floor) else 1.0
