"""Print a configuration archive with one provider (the mock) and one conversation whose reply
holds every block type: python3 seed.py SEED.md BASE_URL"""
import json
import sys
import uuid

markdown = open(sys.argv[1], encoding="utf-8").read()
provider = {"id": str(uuid.uuid4()).upper(), "name": "Mock", "wire": "openAI", "baseURL": sys.argv[2],
            "model": "mock-small", "apiKey": "sk-mock", "cachedModels": None}
messages = [
    {"id": str(uuid.uuid4()).upper(), "role": "user", "content": "Show every block"},
    {"id": str(uuid.uuid4()).upper(), "role": "assistant", "content": markdown,
     "usage": {"promptTokens": 12, "completionTokens": 34, "totalTokens": 46}},
]
conversation = {"id": str(uuid.uuid4()).upper(), "title": "Every block", "createdAt": 1000.0,
                "updatedAt": 2000.0, "messages": messages}
print(json.dumps({"conversations": [conversation], "providers": [provider], "version": 1}, indent=2))
