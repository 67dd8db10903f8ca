// A host for tests: answers HistoryReadRaw from plain lists, in pages, as the real one does.

export class FakeHost {
  // histories: { id: [[time, value, quality]...] }
  constructor(histories, { pageSize = 100_000 } = {}) {
    this.histories = histories;
    this.pageSize = pageSize;
    this.requests = [];
  }

  async call(method, text) {
    this.requests.push({ method, text, body: JSON.parse(text) });
    const { data, parameters } = JSON.parse(text);
    if (method !== 'HistoryReadRaw') throw new Error(`no ${method} here`);
    return { code: 0, data: data.map((item) => this.read(item, parameters)) };
  }

  read(item, { startTime, endTime, returnFirstLastValue }) {
    const all = this.histories[item.archiveItemId];
    const archiveItemId = item.archiveItemId;
    if (!all) return { archiveItemId, statusCode: -2143420416, areMoreValues: false, values: [] };
    if (returnFirstLastValue) {
      return { archiveItemId, areMoreValues: false, values: all.length < 2 ? all : [all[0], all[all.length - 1]] };
    }
    const from = item.continuationPoint === undefined ? startTime : Number(item.continuationPoint);
    const wanted = all.filter(([time]) => time >= from && (!endTime || time <= endTime));
    const values = wanted.slice(0, this.pageSize);
    const areMoreValues = values.length < wanted.length;
    const reply = { archiveItemId, areMoreValues, values };
    if (areMoreValues) reply.continuationPoint = String(values[values.length - 1][0] + 1);
    return reply;
  }
}
