"use strict";
(() => {
    const data = JSON.parse(document.getElementById("data").textContent);
    const { summary, steps, heat } = data;
    const times = steps.t;
    const whole = times.length ? [times[0], times[times.length - 1] + data.stepMs] : [0, 1];
    const classNames = ["fast", "moderate", "slow", "very slow", "slowest"];
    const classColours = ["#0072b2", "#56b4e9", "#f0e442", "#e69f00", "#d55e00"];
    const lineColours = ["#009e73", "#56b4e9", "#0072b2", "#cc79a7", "#d55e00"];
    const dashes = [[], [6, 3], [], [2, 2], []]; // beside the colours
    const heatColours = ["#fde725", "#b5de2b", "#6ece58", "#35b779", "#1f9e89", "#26828e", "#31688e", "#3e4989", "#440154"];
    const byId = (id) => document.getElementById(id);
    const charts = [];

    // Texts.
    const round = (value, digits) => Number(value.toPrecision(digits)).toString();
    const latency = (us) => us >= 1e6 ? round(us / 1e6, 4) + " s" : us >= 1e3 ? round(us / 1e3, 4) + " ms" : us + " µs";
    const duration = (ms) => ms >= 172800e3 ? round(ms / 86400e3, 3) + " d" : ms >= 7200e3 ? round(ms / 3600e3, 3) + " h" : ms >= 120e3 ? round(ms / 60e3, 3) + " min"
        : ms >= 1e3 ? round(ms / 1e3, 3) + " s" : round(ms, 3) + " ms";
    const count = (value) => value.toLocaleString("en-GB");
    const many = (value, one, more) => `${count(value)} ${value === 1 ? one : more}`;
    const percent = (share) => share > 0 && share < 0.0005 ? "<0.1 %" : (100 * share).toFixed(1) + " %";
    const iso = (ms) => new Date(ms).toISOString();
    const moment = (ms) => iso(ms).slice(0, 19).replace("T", " ");
    const element = (tag, text, parent) => {
        const made = document.createElement(tag);
        if (text !== undefined) made.textContent = text;
        if (parent) parent.append(made);
        return made;
    };
    const style = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

    // A time axis: ticks at round times, UTC.
    const tickSteps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400, 172800,
        604800, 2419200, 7257600, 31536000, 315360000].map((s) => s * 1000);
    function timeTicks(axis) {
        const most = Math.max(2, Math.floor(axis.width / 90));
        const step = tickSteps.find((each) => (axis.max - axis.min) / each <= most) || tickSteps[tickSteps.length - 1];
        axis.ticks = [];
        for (let at = Math.ceil(axis.min / step) * step; at <= axis.max; at += step) axis.ticks.push({ value: at });
    }
    function tickText(value, index, ticks) {
        const step = ticks.length > 1 ? ticks[1].value - ticks[0].value : 1000;
        if (step >= 86400e3 || value % 86400e3 === 0) return iso(value).slice(0, 10);
        return iso(value).slice(11, step >= 60e3 ? 16 : 19);
    }
    const timeAxis = () => ({
        type: "linear", min: zoom[0], max: zoom[1], afterBuildTicks: timeTicks,
        ticks: { callback: tickText, maxRotation: 0, autoSkip: false }, grid: { color: style("--line") },
    });
    const valueAxis = (title, text, more = {}) => ({
        beginAtZero: true, title: { display: true, text: title }, ticks: { callback: text }, grid: { color: style("--line") }, ...more,
    });
    // Powers of ten alone have a label.
    const logarithmic = (title) => valueAxis(title, (value) => Number.isInteger(Math.log10(value)) ? latency(value) : "",
        { type: "logarithmic", beginAtZero: false });

    // A line breaks where several reports in a row are missing.
    const distances = times.slice(1).map((t, i) => t - times[i]).sort((a, b) => a - b);
    const longest = 3 * (distances[Math.floor(distances.length / 2)] || data.stepMs);
    function points(values) {
        const made = [];
        values.forEach((y, i) => {
            if (i > 0 && times[i] - times[i - 1] > longest) made.push({ x: times[i - 1] + data.stepMs, y: null });
            made.push({ x: times[i], y });
        });
        return made;
    }

    let zoom = whole;
    function draw(id, type, datasets, y, options = {}) {
        const { plugins = {}, ...rest } = options;
        charts.push(new Chart(byId(id), {
            type, data: { datasets },
            options: {
                animation: false, responsive: true, maintainAspectRatio: false, normalized: true,
                interaction: { mode: "index", intersect: false }, scales: { x: timeAxis(), y }, ...rest,
                plugins: {
                    legend: { position: "bottom", reverse: true, labels: { boxWidth: 12, boxHeight: 12 } },
                    ...plugins,
                    tooltip: { itemSort: (a, b) => b.datasetIndex - a.datasetIndex, ...plugins.tooltip,
                        callbacks: { title: (items) => items.length ? moment(items[0].parsed.x) : "", ...(plugins.tooltip || {}).callbacks } },
                },
            },
        }));
    }
    const tooltip = (label) => ({ tooltip: { callbacks: { label } } });

    function drawClasses() {
        const totals = times.map((_, i) => steps.classes.reduce((sum, values) => sum + values[i], 0));
        const sets = (valueOf) => [4, 3, 2, 1, 0].map((number) => ({
            label: classNames[number], data: points(steps.classes[number].map((value, i) => valueOf(value, i))),
            borderColor: classColours[number], backgroundColor: classColours[number] + "cc",
            borderWidth: 1, pointRadius: times.length === 1 ? 4 : 0, fill: true, stepped: false,
        }));
        draw("shares", "line", sets((value, i) => totals[i] ? 100 * value / totals[i] : null),
            valueAxis("share of I/Os", (value) => round(value, 4) + " %",
            { stacked: true, afterDataLimits(axis) { axis.max = Math.min(axis.max, 100); } }),
            { plugins: tooltip((item) => ` ${item.dataset.label}: ${percent(item.parsed.y / 100)}`) });
        const failed = { label: "failed", data: points(steps.failed), borderColor: style("--ink"), backgroundColor: style("--ink"),
            borderWidth: 1.5, borderDash: [4, 3], pointRadius: 0, fill: false, stack: "failed" };
        draw("ios", "line", [...sets((value) => value), failed],
            valueAxis(`I/Os in ${duration(data.stepMs)}`, (value) => count(value), { stacked: true }),
            { plugins: tooltip((item) => ` ${item.dataset.label}: ${count(item.parsed.y)} I/Os`) });
    }

    const positive = (values) => points(values.map((value) => value > 0 ? value : null));
    function drawLines() {
        const names = ["p50", "p90", "p99", "p99.9", "longest I/O"];
        const lined = { ...tooltip((item) => ` ${item.dataset.label}: ${latency(item.parsed.y)}`),
            legend: { position: "bottom", reverse: true, labels: { usePointStyle: true, pointStyleWidth: 28 } } };
        draw("percentiles", "line", names.map((name, i) => ({
            label: name, data: positive(steps.percentilesUs[i]), borderColor: lineColours[i], backgroundColor: lineColours[i],
            borderDash: dashes[i], borderWidth: 1.8, pointStyle: "line", pointRadius: times.length === 1 ? 4 : 0,
        })), logarithmic("latency"), { plugins: lined });
        const limits = ["fast up to", "moderate up to", "slow up to", "very slow up to"].map((name, i) => ({
            label: name, data: positive(steps.boundsUs[i]), borderColor: classColours[i], backgroundColor: classColours[i],
        }));
        limits.push({ label: "threshold of episodes", data: positive(steps.thresholdUs), borderColor: style("--ink"),
            backgroundColor: style("--ink"), borderDash: [4, 3] });
        draw("limits", "line", limits.map((each) => ({ ...each, borderWidth: 2, pointStyle: "line", pointRadius: times.length === 1 ? 4 : 0, stepped: "before" })),
            logarithmic("latency"), { plugins: lined });
    }

    function drawEpisodes() {
        const marks = times.map((t, i) => ({ x: t, y: steps.longestEpisodeMs[i], r: 3 + Math.min(9, Math.sqrt(steps.episodes[i])), i }))
            .filter((mark) => steps.episodes[mark.i] > 0 || mark.y > 0);
        draw("episodes", "bubble", [{ label: "longest episode", data: marks, backgroundColor: "#d55e00aa", borderColor: "#d55e00" }],
            valueAxis("duration", (value) => duration(value)),
            { interaction: { mode: "nearest", intersect: false, axis: "x" }, plugins: { legend: { display: false }, ...tooltip((item) => {
                const i = item.raw.i;
                return ` ${count(steps.episodes[i])} episodes, longest ${duration(item.raw.y)}, sum ${duration(steps.episodeSumMs[i])}`;
            }) } });
    }

    // Few shares are great: colours by their root.
    const heatColour = (share) => share === 0 ? style("--line")
        : heatColours[Math.min(heatColours.length - 1, Math.floor(Math.sqrt(share / heatMost) * heatColours.length))];
    const heatMost = Math.max(1e-9, ...heat.slow.map((slow, i) => heat.ios[i] ? slow / heat.ios[i] : 0));
    function drawHeat() {
        byId("heatFigure").hidden = heat.hosts.length < 2;
        if (heat.hosts.length < 2) return;
        const rowHeight = Math.max(9, Math.min(24, 900 / heat.hosts.length));
        byId("heatChart").style.height = Math.max(140, heat.hosts.length * rowHeight + 50) + "px";
        byId("ramp").style.background = `linear-gradient(90deg, ${heatColours.map((colour, i) => `${colour} ${100 * (i / heatColours.length) ** 2}%`).join(",")})`;
        byId("rampEnd").textContent = percent(heatMost);
        const share = (i) => heat.ios[i] ? heat.slow[i] / heat.ios[i] : 0;
        const cells = heat.host.map((host, i) => ({ x: [heat.t[i], heat.t[i] + heat.stepMs], y: heat.hosts[host], i }));
        draw("heat", "bar", [{ data: cells, backgroundColor: cells.map((cell) => heatColour(share(cell.i))), grouped: false,
            barPercentage: 1, categoryPercentage: 0.94, minBarLength: 1, borderSkipped: false }],
        { type: "category", labels: heat.hosts, grid: { display: false }, ticks: { font: { size: Math.min(11, rowHeight - 1) },
            callback(value) { const name = String(this.getLabelForValue(value)); return name.length > 24 ? name.slice(0, 23) + "…" : name; } } },
        { indexAxis: "y", interaction: { mode: "nearest", intersect: true, axis: "xy" }, plugins: { legend: { display: false }, tooltip: { callbacks: {
            title: (items) => items.length ? items[0].raw.y.slice(0, 60) : "",
            label: (item) => ` from ${moment(item.raw.x[0])}: ${percent(share(item.raw.i))} of ${count(heat.ios[item.raw.i])} I/Os slow`,
        } } } });
    }

    // Zooming: one window of time for all charts.
    function show(window) {
        zoom = window;
        for (const chart of charts) {
            Object.assign(chart.options.scales.x, { min: zoom[0], max: zoom[1] });
            chart.update("none");
        }
        const isWhole = zoom === whole;
        byId("reset").disabled = isWhole;
        byId("window").textContent = isWhole ? "" : `${moment(zoom[0])} to ${moment(zoom[1])}`;
    }
    function selectOn(canvas) {
        let start = null;
        let mark = null;
        const area = () => Chart.getChart(canvas).chartArea;
        const within = (event) => Math.max(area().left, Math.min(area().right, event.offsetX));
        canvas.addEventListener("pointerdown", (event) => {
            if (event.button !== 0 || event.offsetY > area().bottom || event.offsetX < area().left) return;
            start = within(event);
            canvas.setPointerCapture(event.pointerId);
            mark = element("div", undefined, canvas.parentElement);
            mark.className = "selection";
            Object.assign(mark.style, { top: area().top + "px", height: area().bottom - area().top + "px", width: 0 });
        });
        canvas.addEventListener("pointermove", (event) => {
            if (start === null) return;
            const at = within(event);
            Object.assign(mark.style, { left: Math.min(start, at) + "px", width: Math.abs(at - start) + "px" });
        });
        const end = (event) => {
            if (start === null) return;
            const axis = Chart.getChart(canvas).scales.x;
            const edges = [start, within(event)].sort((a, b) => a - b);
            const window = edges.map((pixel) => axis.getValueForPixel(pixel));
            mark.remove();
            start = null;
            if (event.type === "pointerup" && edges[1] - edges[0] > 5 && window[1] - window[0] >= data.stepMs) show(window);
        };
        canvas.addEventListener("pointerup", end);
        canvas.addEventListener("pointercancel", end);
        canvas.addEventListener("dblclick", () => show(whole));
    }

    function drawAll() {
        while (charts.length) charts.pop().destroy();
        Chart.defaults.color = style("--soft");
        Chart.defaults.borderColor = style("--line");
        Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
        drawClasses();
        drawLines();
        drawEpisodes();
        drawHeat();
    }

    // Figures beside the charts.
    function cards() {
        const worst = summary.worstPercentilesUs;
        const all = [
            ["I/Os", count(summary.ios)], ["slow I/Os", percent(summary.slowShare)],
            ["failed I/Os", count(summary.failedIos), summary.failedIos > 0],
            ["worst p99 of a report", latency(worst.p99)], ["longest I/O", latency(worst.max)],
            ["high-latency episodes", count(summary.episodes)], ["longest episode", duration(summary.longestEpisodeMs)],
            ["hosts", count(summary.hosts)],
            ["records missing", count(summary.missing), summary.missing > 0],
        ];
        for (const [name, value, isBad] of all) {
            const card = element("div", undefined, byId("cards"));
            card.className = isBad ? "card bad" : "card";
            element("b", value, card);
            element("span", name, card);
        }
        byId("span").textContent = summary.from === null ? "No records in this time"
            : `${moment(Date.parse(summary.from))} to ${moment(Date.parse(summary.to))} UTC · ${many(summary.reports, "report", "reports")} · ${many(summary.boots, "process", "processes")}`;
        for (const place of document.querySelectorAll(".step")) place.textContent = `A step is ${duration(data.stepMs)}.`;
        byId("heatNote").textContent = heat.left ? `${count(heat.left)} better hosts are left out.` : "";
    }

    const columns = [
        ["host", (line) => line.host, (text) => text], ["processes", (line) => line.boots, count], ["reports", (line) => line.reports, count],
        ["I/Os", (line) => line.ios, count], ["slow", (line) => line.slowShare, percent], ["failed", (line) => line.failedIos, count],
        ["worst p50", (line) => line.worstPercentilesUs.p50, latency], ["worst p99", (line) => line.worstPercentilesUs.p99, latency],
        ["longest I/O", (line) => line.worstPercentilesUs.max, latency], ["episodes", (line) => line.episodes, count],
        ["mean episode", (line) => line.meanEpisodeMs, duration], ["longest episode", (line) => line.longestEpisodeMs, duration],
    ];
    function table(sorted, isDescending) {
        const host = byId("hosts");
        host.replaceChildren();
        const head = element("tr", undefined, element("thead", undefined, host));
        columns.forEach(([name], i) => {
            const cell = element("th", undefined, head);
            cell.scope = "col";
            if (i === sorted) cell.setAttribute("aria-sort", isDescending ? "descending" : "ascending");
            const button = element("button", name, cell);
            button.type = "button";
            button.addEventListener("click", () => table(i, i === sorted ? !isDescending : i > 0));
        });
        const valueOf = columns[sorted][1];
        const order = [...summary.hostsBySlowShare].sort((a, b) => {
            const [x, y] = isDescending ? [valueOf(b), valueOf(a)] : [valueOf(a), valueOf(b)];
            return x < y ? -1 : x > y ? 1 : 0;
        });
        const body = element("tbody", undefined, host);
        for (const line of order) {
            const row = element("tr", undefined, body);
            for (const [, value, text] of columns) element("td", text(value(line)), row);
            row.firstChild.title = line.host;
        }
    }

    const limitsText = (limits) => `threshold ${latency(limits.thresholdUs)}, bounds ${limits.boundsUs.map(latency).join(", ")}`;
    function list(title, lines) {
        const most = 100;
        if (!lines.length) return;
        const place = element("div", undefined, byId("lists"));
        element("h2", title, place);
        const items = element("ul", undefined, place);
        lines.slice(0, most).forEach((line) => element("li", line, items));
        if (lines.length > most) element("li", `and ${count(lines.length - most)} more`, items);
    }
    function lists() {
        const process = (line) => `host ${line.host}, process ${line.boot.slice(0, 8)}`;
        const account = summary.account;
        list("Maxima", [`longest I/O in a report: ${latency(summary.worstPercentilesUs.max)}`,
            ...Object.entries(summary.maxima).map(([name, most]) => `${name} = ${count(most.value)} (host ${most.host})`)]);
        list("Records", [`${count(summary.recordsRead)} read, ${count(summary.duplicates)} doubled, ${count(summary.missing)} missing, `
            + `${count(summary.evicted)} evicted, ${count(summary.notUnderstood)} not understood`,
            ...summary.firstNotUnderstood.map((line) => `${line.file}:${line.line}: ${line.reason}`)]);
        list("Account", account.processes ? [`${many(account.processes, "process", "processes")}: pushed ${count(account.pushed)} + restored ${count(account.restored)} `
            + `${account.addsUp ? "=" : "is not"} delivered ${count(account.delivered)} + failed ${count(account.failed)} + dropped ${count(account.dropped)} `
            + `+ evicted ${count(account.evicted)} + waiting ${count(account.waiting)}`] : []);
        list("Sets, which are parts of the above", Object.entries(summary.sets).map(([name, set]) =>
            `${name}: ${count(set.ios)} I/Os, ${percent(set.slowShare)} slow, longest I/O ${latency(set.worstPercentilesUs.max)}`));
        list("Changes of threshold and bounds", summary.limitsChanges.map((change) =>
            `${moment(Date.parse(change.at))}, host ${change.host}: ${limitsText(change.before)}; then ${limitsText(change.after)}`));
        list("Gaps", summary.gaps.map((gap) => `${process(gap)}: ${many(gap.missing, "record", "records")} missing `
            + (gap.after === null ? `before ${moment(Date.parse(gap.before))}`
                : `between ${moment(Date.parse(gap.after))} and ${moment(Date.parse(gap.before))}`)));
        list("System clock set", summary.clockSteps.map((step) => `${process(step)}: by ${duration(step.byMs)}`));
    }

    cards();
    table(4, true);
    lists();
    drawAll();
    ["shares", "ios", "percentiles", "episodes", "limits", "heat"].map(byId).filter((canvas) => Chart.getChart(canvas)).forEach(selectOn);
    byId("reset").addEventListener("click", () => show(whole));
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawAll);
    matchMedia("print").addEventListener("change", drawAll);
    document.documentElement.dataset.ready = String(Math.round(performance.now()));
})();
