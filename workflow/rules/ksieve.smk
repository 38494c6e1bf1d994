# Stage 1: kSieve on each run, into the run's own output directory. The
# companion's .ms1/.ms2 pair is temporary: the declared-precursor search reads
# the .ms2, and then both go.


rule ksieve:
    input:
        lambda wildcards: RUNS[wildcards.run],
    output:
        table=f"{OUT}/runs/{{run}}/ksieve/{{run}}.csv",
        ms1=temp(f"{OUT}/runs/{{run}}/ksieve/{{run}}.ms1"),
        ms2=temp(f"{OUT}/runs/{{run}}/ksieve/{{run}}.ms2"),
        info=f"{OUT}/runs/{{run}}/ksieve_info.json",
    log:
        f"{OUT}/logs/{{run}}/ksieve.log",
    threads: config["ksieve_threads"]
    run:
        options = [arg for item in config["ksieve_options"].items()
                   for arg in ("--option", *map(str, item))]
        options += [arg for item in config["ksieve_parameters"].items()
                    for arg in ("--parameter", *map(str, item))]
        python_script("run_ksieve.py", "--run", wildcards.run, "--input", input[0],
                      "--bin", KSIEVE_BIN, "--outdir", Path(output.table).parent,
                      "--run-dir", f"{OUT}/runs/{wildcards.run}", "--threads", threads,
                      "--log", log[0], "--info", output.info, *options)
