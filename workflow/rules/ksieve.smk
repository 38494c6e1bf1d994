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
        scans=f"{OUT}/runs/{{run}}/scans.tsv",
    log:
        f"{OUT}/logs/{{run}}/ksieve.log",
    threads: config["ksieve_threads"]
    params:
        argv=lambda wildcards, input, output, threads: [
            "run_ksieve.py", f"--run={wildcards.run}", f"--input={input[0]}",
            f"--bin={KSIEVE_BIN}", f"--outdir={Path(output.table).parent}",
            f"--run-dir={OUT}/runs/{wildcards.run}", f"--threads={threads}",
            f"--log={OUT}/logs/{wildcards.run}/ksieve.log", f"--info={output.info}",
            f"--scans={output.scans}",
            *ksieve_arguments()],
    script:
        STAGE
